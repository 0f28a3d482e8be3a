// msplat: the platform layer's services on the command line.
//
// Results go to standard output, errors to standard error. Exit status: 0 success, 1 what was asked for
// doesn't exist, 2 bad usage or a failure.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <sstream>

#include <CLI/CLI.hpp>

#include "msplat.h"

namespace {

int Run(int argc, char** argv) {
    CLI::App app{
        "The media server's platform layer on the command line: configuration, identifiers, "
        "directories, log, media formats, language terms.",
        "msplat"};
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 success, 1 what was asked for doesn't exist, 2 bad usage or a failure.\n"
        "Every command has --help.");
    int status = msplat::kOk;
    msplat::AddConfigCommands(app, status);
    msplat::AddIdentCommands(app, status);
    msplat::AddOsCommands(app, status);
    msplat::AddLanguageCommands(app, status);
    msplat::AddFormatsCommands(app, status);
    msplat::AddLogCommands(app, status);
    msplat::AddLocksCommands(app, status);
    msplat::AddDemoCommands(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help is a ParseError of status 0; every other one is bad usage. The help goes to the results.
        std::ostringstream help, error;
        int code = app.exit(e, help, error);
        fputs(help.str().c_str(), msplat::Out());
        fputs(error.str().c_str(), stderr);
        return code == 0 ? msplat::kOk : msplat::kFailure;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A write beyond the file size limit then fails with EFBIG instead of ending msplat halfway through it,
    // so that the failure is told (and config edit puts the old bytes back).
    signal(SIGXFSZ, SIG_IGN);
    if (!msplat::SeparateResults()) {
        msplat::Error("standard output: %s", strerror(errno));
        _exit(msplat::kFailure);
    }
    int status = msplat::kFailure;
    try {
        status = Run(argc, argv);
    } catch (const std::exception& e) {
        msplat::Error("%s", e.what());
        status = msplat::kFailure;
    }
    if (fflush(msplat::Out()) != 0 || ferror(msplat::Out())) {
        msplat::Error("standard output: write failed");
        status = msplat::kFailure;
    }
    // The library's static objects are not destroyed: the logger's and the language reader's would remove
    // their semaphores for every process, from under the servers that share them.
    fflush(stderr);
    _exit(status);
}

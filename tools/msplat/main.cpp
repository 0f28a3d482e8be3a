// msplat: the platform layer's services on the command line.
//
// Results go to standard output, errors to standard error. Exit status: 0 success, 1 what was asked for
// doesn't exist, 2 bad usage or a failure.
#include <stdio.h>
#include <unistd.h>

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
    msplat::AddDemoCommands(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help is a ParseError of status 0; every other one is bad usage.
        return app.exit(e) == 0 ? msplat::kOk : msplat::kFailure;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    int status = msplat::kFailure;
    try {
        status = Run(argc, argv);
    } catch (const std::exception& e) {
        msplat::Error("%s", e.what());
        status = msplat::kFailure;
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        msplat::Error("standard output: write failed");
        status = msplat::kFailure;
    }
    // The library's static objects are not destroyed: the logger's and the language reader's would remove
    // their semaphores for every process, from under the servers that share them.
    fflush(stderr);
    _exit(status);
}

// msplat formats: the media format table, read from MediaFormats.xml in a directory or the shipped sample.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <msplatform/mediaMapper.h>

#include "msplat.h"
#include "shipped.h"

namespace msplat {
namespace {

struct FormatsArgs {
    std::string dir;
    std::string key;
};

// A mapper of the tool's own: the lookup that gives a whole record has no flat function. It lives until
// exit, like the library's.
MediaMapper& Mapper() {
    static MediaMapper mapper;
    return mapper;
}

// The mapper reads MediaFormats.xml from the working directory: the load runs in `dir`, and the tool goes
// back to where it was.
bool LoadIn(const std::string& dir) {
    int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (chdir(dir.c_str()) != 0) {
        if (here >= 0) close(here);
        Error("%s: %s", dir.c_str(), strerror(errno));
        return false;
    }
    bool loaded = Mapper().initialize() == 1;
    if (here >= 0) {
        if (fchdir(here) != 0) Error("cannot go back to the working directory");
        close(here);
    }
    if (!loaded) Error("%s/MediaFormats.xml: the table could not be loaded", dir.c_str());
    return loaded;
}

int Load(const FormatsArgs& args) {
    if (!args.dir.empty()) {
        int status = CheckRegularFile(args.dir + "/MediaFormats.xml");
        if (status != kOk) return status;
        return LoadIn(args.dir) ? kOk : kFailure;
    }
    static const char* const kFiles[] = {"MediaFormats.xml", nullptr};
    const std::string dir = MakeTempDir("formats");
    if (dir.empty()) return kFailure;
    bool loaded = !WriteShipped("MediaFormats.xml", dir).empty() && LoadIn(dir);
    RemoveTempDir(dir, kFiles);
    return loaded ? kOk : kFailure;
}

const char* MediaTypeName(char type) {
    switch (type) {
        case 'a':
            return "audio";
        case 'v':
            return "video";
        case 'i':
            return "image";
    }
    return nullptr;
}

void PrintField(const char* name, const char* value) {
    Printf("%-13s %s\n", name, value ? value : "-");
}

int Extension(const FormatsArgs& args) {
    int status = Load(args);
    if (status != kOk) return status;
    const MediaFormatInfo* format = Mapper().getFormatInfoByExtension(const_cast<char*>(args.key.c_str()));
    if (!format) {
        Error("formats: no format for the extension \"%s\"", args.key.c_str());
        return kMissing;
    }
    PrintField("FormatName", format->formatName);
    PrintField("Extensions", format->extensions);
    PrintField("MimeType", format->mimeType);
    PrintField("MediaType", MediaTypeName(format->mediaType));
    PrintField("DLNA_Class", format->dlnaClass);
    PrintField("DLNA_Profile", format->dlnaProfile);
    PrintField("Transcode", format->transcodeFlag ? "yes" : "no");
    PrintField("Parser", format->parserName);
    PrintField("DAP", format->dapName);
    return kOk;
}

int Extensions(const FormatsArgs& args, bool byPlugin) {
    int status = Load(args);
    if (status != kOk) return status;
    char* key = const_cast<char*>(args.key.c_str());
    const char* list =
        byPlugin ? Mapper().getExtensionListByPluginName(key) : Mapper().getExtensionListByMimeType(key);
    if (!list) {
        Error("formats: no format with the %s \"%s\", or it lists no extension",
              byPlugin ? "parser plug-in" : "MIME type", key);
        return kMissing;
    }
    Puts(list);
    return kOk;
}

int Plugins(const FormatsArgs& args) {
    int status = Load(args);
    if (status != kOk) return status;
    const char* plugins = Mapper().getUniqueParserPlugins();
    if (!plugins) {
        Error("formats: the table names no parser plug-in");
        return kMissing;
    }
    // "mp3Parser,aacParser": one name a line.
    for (const char* name = plugins;;) {
        const char* comma = strchr(name, ',');
        size_t length = comma ? static_cast<size_t>(comma - name) : strlen(name);
        Printf("%.*s\n", static_cast<int>(length), name);
        if (!comma) break;
        name = comma + 1;
    }
    return kOk;
}

}  // namespace

void AddFormatsCommands(CLI::App& app, int& status) {
    auto args = std::make_shared<FormatsArgs>();
    CLI::App* formats = app.add_subcommand("formats", "Look media formats up in the format table");
    formats->require_subcommand(1);
    formats->add_option("--dir", args->dir, "Directory holding MediaFormats.xml");
    formats->footer(
        "--dir DIR may stand before or after the command; without it, the sample table shipped with\n"
        "msplat is read. Lookups ignore case; the first format of the file that matches answers.");

    CLI::App* ext = formats->add_subcommand("ext", "Print every field of the format of a file extension");
    ext->fallthrough();
    ext->add_option("EXT", args->key, "Extension, with or without its dot")->required();
    ext->callback([&status, args] { status = Extension(*args); });

    CLI::App* mime =
        formats->add_subcommand("mime", "Print the extensions of the first format of a MIME type");
    mime->fallthrough();
    mime->add_option("TYPE", args->key, "MIME type, e.g. audio/mpeg")->required();
    mime->callback([&status, args] { status = Extensions(*args, false); });

    CLI::App* plugin = formats->add_subcommand(
        "plugin", "Print the extensions of the first format read by a parser plug-in");
    plugin->fallthrough();
    plugin->add_option("NAME", args->key, "Parser plug-in name")->required();
    plugin->callback([&status, args] { status = Extensions(*args, true); });

    CLI::App* plugins =
        formats->add_subcommand("plugins", "Print the parser plug-ins of the table, one a line");
    plugins->fallthrough();
    plugins->callback([&status, args] { status = Plugins(*args); });
}

}  // namespace msplat

// msplat tx and msplat languages: the language reader, on a configured language file or the shipped sample.
#include <stdio.h>
#include <string.h>

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/ZvLanguageReader.h>

#include "msplat.h"
#include "shipped.h"

namespace msplat {
namespace {

constexpr size_t kMaxLanguageFilePath = 255;  // the reader's path buffer, less its terminator

struct LanguageArgs {
    std::string config;
    std::string language = "English";
    std::string id;
    std::string fallback;
};

char* C(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

// The shipped sample behind a configuration of its own, in a temporary directory that is gone again once
// the reader has copied what it keeps.
int LoadShipped(const std::string& language) {
    static const char* const kFiles[] = {"languages.xml", "MediaServer.cfg", nullptr};
    const std::string dir = MakeTempDir("language");
    if (dir.empty()) return kFailure;
    int status = kFailure;
    const std::string xml = WriteShipped("languages.xml", dir);
    const std::string config = dir + "/MediaServer.cfg";
    if (xml.size() > kMaxLanguageFilePath) {
        Error("%s: the language file's path is longer than %zu bytes", xml.c_str(), kMaxLanguageFilePath);
    } else if (!xml.empty() && initializeConfig(config.c_str()) == CFG_OK) {
        int made = createConfigString(C("LANGUAGE"), C("languageFilePath"),
                                      reinterpret_cast<unsigned char*>(C(xml)), static_cast<int>(xml.size()));
        if (made == CFG_OK)
            made = createConfigString(C("LANGUAGE"), C("currentLanguage"),
                                      reinterpret_cast<unsigned char*>(C(language)),
                                      static_cast<int>(language.size()));
        deinitializeConfig();
        if (made != CFG_OK)
            Error("%s: %s", config.c_str(), CfgResultText(made));
        else if (initializeLanguageReader(C(config)) == 1)
            status = kOk;
        else
            Error("\nthe shipped language file could not be loaded");
    }
    RemoveTempDir(dir, kFiles);
    return status;
}

// Loads the reader; kOk, or the status after a message. A current language that the file doesn't list would
// only give fallbacks: it counts as missing.
int Load(const LanguageArgs& args) {
    int status = kOk;
    if (args.config.empty()) {
        status = LoadShipped(args.language);
    } else {
        status = CheckRegularFile(args.config);
        if (status == kOk && initializeLanguageReader(C(args.config)) != 1) {
            fputc('\n', stderr);  // the reader's own message has no line end
            Error("%s: the language file could not be loaded", args.config.c_str());
            status = kFailure;
        }
    }
    if (status != kOk) return status;
    const char* current = languageReader.currentLanguage;
    const char* names = getSupportedLanguages();
    std::string listed = std::string("|") + (names ? names : "");
    if (!current || listed.find("|" + std::string(current) + "|") == std::string::npos) {
        Error("%s: not a language of the file (%s)", current ? current : "(none)", names ? names : "");
        return kMissing;
    }
    return kOk;
}

int Translate(const LanguageArgs& args, bool hasFallback) {
    int status = Load(args);
    if (status != kOk) return status;
    const char* text = Tx(hasFallback ? args.fallback.c_str() : nullptr, args.id.c_str());
    if (!text) {
        Error("tx: %s: no text in %s", args.id.c_str(), languageReader.currentLanguage);
        return kMissing;
    }
    Puts(text);
    return kOk;
}

int Languages(const LanguageArgs& args) {
    int status = Load(args);
    if (status != kOk) return status;
    // "English|Deutsch|": one name a line.
    for (const char* name = getSupportedLanguages(); *name;) {
        const char* bar = strchr(name, '|');
        size_t length = bar ? static_cast<size_t>(bar - name) : strlen(name);
        Printf("%.*s\n", static_cast<int>(length), name);
        name += length + (bar ? 1 : 0);
    }
    return kOk;
}

void AddSource(CLI::App* command, LanguageArgs& args) {
    CLI::Option* config = command->add_option(
        "--config", args.config, "Configuration file naming the language file and the current language");
    command->add_option("--language", args.language, "Language of the shipped sample")
        ->capture_default_str()
        ->excludes(config);
    command->footer(
        "The reader loads the file named by [LANGUAGE] languageFilePath in the configuration, for the\n"
        "language [LANGUAGE] currentLanguage. Without --config: the sample language file shipped with\n"
        "msplat, in the language of --language.");
}

}  // namespace

void AddLanguageCommands(CLI::App& app, int& status) {
    auto args = std::make_shared<LanguageArgs>();
    auto hasFallback = std::make_shared<bool>(false);
    CLI::App* tx = app.add_subcommand("tx", "Print the text of a term in the current language");
    AddSource(tx, *args);
    tx->add_option("ID", args->id, "The term's identifier")->required();
    CLI::Option* fallback = tx->add_option("FALLBACK", args->fallback, "Printed when the term has no text");
    tx->callback([&status, args, fallback] { status = Translate(*args, fallback->count() > 0); });

    CLI::App* languages = app.add_subcommand("languages", "Print the languages of the language file");
    AddSource(languages, *args);
    languages->callback([&status, args] { status = Languages(*args); });
}

}  // namespace msplat

// What the subcommand groups of msplat share: exit statuses, messages, argument checks.
#pragma once

#include <stdio.h>

#include <memory>
#include <string>

namespace CLI {
class App;
}

namespace msplat {

// Exit statuses: success, what was asked for doesn't exist, bad usage or a failure.
enum Status { kOk = 0, kMissing = 1, kFailure = 2 };

// Each group adds its subcommands to the application; the one that runs stores its status in `status`.
void AddConfigCommands(CLI::App& app, int& status);
// apply and edit, on the file that `file` names once the command line is parsed.
void AddConfigChangeCommands(CLI::App* config, const std::shared_ptr<std::string>& file, int& status);
void AddIdentCommands(CLI::App& app, int& status);
void AddOsCommands(CLI::App& app, int& status);
void AddLanguageCommands(CLI::App& app, int& status);
void AddFormatsCommands(CLI::App& app, int& status);
void AddLogCommands(CLI::App& app, int& status);
void AddLocksCommands(CLI::App& app, int& status);
// log list and log follow.
void AddLogFileCommands(CLI::App* log, int& status);
void AddDemoCommands(CLI::App& app, int& status);

// The path of the file that the library's event logger writes to; empty when it has none open.
std::string CurrentLogFile();

// The stream of msplat's results: the standard output that msplat was given. The process's own standard
// output, where the library writes lines of its own ("cfg initialize failed to get mutex"), goes to
// /dev/null from SeparateResults on, so that no result ever carries them.
bool SeparateResults();
FILE* Out();
// printf, puts and putchar on the results.
void Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Puts(const char* text);
void Putc(int c);

// "msplat: " and the formatted message, on standard error with a line end.
void Error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The configuration store's result code in words ("no such section"), and the exit status it stands for.
const char* CfgResultText(int result);
int CfgResultStatus(int result);

// The library's functions take names and values through pointers to mutable text that they only read.
inline char* C(const std::string& text) {
    return const_cast<char*>(text.c_str());
}
inline unsigned char* U(const std::string& text) {
    return reinterpret_cast<unsigned char*>(C(text));
}

// A configuration file's path that the store keeps (1 to 260 bytes); false after a message.
bool CheckCfgPath(const std::string& path);

// Reads a string key through the flat functions, on a store that is initialised; kOk with `value`, or the
// exit status after a message that names `file`.
int ReadConfigString(const std::string& file, const char* section, const char* key, std::string& value);

// A whole decimal number of the int range, with an optional sign; false for anything else.
bool ParseInt(const std::string& text, int& value);

// Checks a path for a file that must exist: kOk for a regular file, kMissing when there is none (with a
// message), kFailure for something else, which is never read (a directory or a pipe would block or fail).
int CheckRegularFile(const std::string& path);

}  // namespace msplat

#include "cfglines.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include <map>
#include <set>
#include <utility>

namespace msplat {
namespace {

void AddProblem(CfgLine& line, const std::string& problem) {
    line.problem += (line.problem.empty() ? "" : "; ") + problem;
}

bool Blank(const std::string& text) {
    return text.find_first_not_of(" \t") == std::string::npos;
}

// A key line's value: a double quote makes a string of the rest without its last byte, whatever that is;
// anything else is what strtol makes of it, held to the int range.
void ReadValue(CfgLine& line, const std::string& value) {
    if (!value.empty() && value[0] == '"') {
        line.kind = CfgLine::kString;
        line.value = value.substr(1, value.size() > 1 ? value.size() - 2 : 0);
        if (value.size() < 2 || value.back() != '"')
            AddProblem(line, "no closing double quote: the store drops the line's last byte");
        return;
    }
    line.kind = CfgLine::kInt;
    errno = 0;
    char* end = nullptr;
    long number = strtol(value.c_str(), &end, 10);
    bool inRange = errno != ERANGE && number >= INT_MIN && number <= INT_MAX;
    line.intValue = number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : static_cast<int>(number);
    if (end == value.c_str() || *end != '\0' || !inRange)
        AddProblem(line,
                   "not a whole number of the int range: the store reads " + std::to_string(line.intValue));
}

}  // namespace

std::string FoldCase(const std::string& name) {
    std::string folded = name;
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return folded;
}

std::vector<CfgLine> ReadCfgLines(const std::string& text, bool mergeSections) {
    std::vector<CfgLine> lines;
    std::map<std::string, size_t> sectionIds;           // folded name to the section of its first line
    std::set<std::pair<size_t, std::string>> keysSeen;  // section and folded key name
    size_t sections = 0;                                // section lines so far
    size_t section = 0;                                 // 0: no section line yet
    bool nameless = false;
    for (size_t at = 0, number = 1; at < text.size(); ++number) {
        CfgLine line;
        line.number = number;
        size_t end = text.find_first_of("\r\n", at);
        if (end == std::string::npos) end = text.size();
        line.text = text.substr(at, end - at);
        at = end + 1;
        if (end < text.size() && text[end] == '\r') {
            // CR LF is one line end; a lone CR takes the next byte with it, whatever that is.
            if (at < text.size() && text[at] != '\n')
                AddProblem(line, "a CR without LF: the store takes the next line's first byte with it");
            ++at;
        }
        size_t zero = line.text.find('\0');
        if (zero != std::string::npos) {
            line.text.resize(zero);
            AddProblem(line, "a zero byte: the store reads the line only up to it");
        }
        const std::string& raw = line.text;
        if (Blank(raw)) {
            // Nothing for the store to keep or lose.
        } else if (raw[0] == '[' && raw.size() >= 2 && raw.back() == ']') {
            line.name = raw.substr(1, raw.size() - 2);
            nameless = line.name.empty();
            if (nameless) {
                AddProblem(line, "a section without a name: the store drops it with the keys behind it");
            } else {
                line.kind = CfgLine::kSection;
                auto [id, first] = sectionIds.emplace(FoldCase(line.name), sectionIds.size() + 1);
                section = mergeSections ? id->second : ++sections;
                if (!first && !mergeSections)
                    AddProblem(line, "a repeated section: the servers see only the keys of the first one");
            }
        } else if (raw.find('=') == std::string::npos) {
            AddProblem(line, "no \"=\": the store drops the line");
        } else if (nameless || section == 0) {
            AddProblem(line, nameless ? "a key of a section without a name: the store drops it"
                                      : "a key ahead of the first section: the store drops it");
        } else {
            size_t equals = raw.find('=');
            line.name = raw.substr(0, equals);
            if (line.name.empty())
                AddProblem(line, "an empty key name: the store drops the line");
            else if (!keysSeen.emplace(section, FoldCase(line.name)).second)
                AddProblem(line, "a repeated key: the store keeps the first one");
            else
                ReadValue(line, raw.substr(equals + 1));
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace msplat

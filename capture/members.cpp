#include "members.h"

#include <stdlib.h>

namespace quarry::capture {

static bool ParseKeep(std::string_view word, Keep* keep) {
    static const struct {
        const char* word;
        Keep keep;
    } kKeeps[] = {{"all", Keep::kAll},   {"dmabuf", Keep::kDmabuf}, {"exp_name", Keep::kExpName},
                  {"line", Keep::kLine}, {"head", Keep::kHead},     {"exists", Keep::kExists},
                  {"info", Keep::kInfo}};
    for (const auto& k : kKeeps) {
        if (word == k.word) {
            *keep = k.keep;
            return true;
        }
    }
    return false;
}

// "64", "4K", "64M": digits and an optional binary unit.
static bool ParseLimit(std::string_view word, uint64_t* limit) {
    uint64_t unit = 1;
    if (!word.empty() && (word.back() == 'K' || word.back() == 'M')) {
        unit = word.back() == 'K' ? 1 << 10 : 1 << 20;
        word.remove_suffix(1);
    }
    if (word.empty() || word.size() > 9) return false;
    uint64_t value = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    *limit = value * unit;
    return true;
}

static std::vector<std::string_view> Words(std::string_view line) {
    std::vector<std::string_view> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) i++;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') i++;
        if (i > start) words.push_back(line.substr(start, i - start));
    }
    return words;
}

bool ParseMembers(std::string_view text, std::vector<Member>* members, std::string* error) {
    members->clear();
    int number = 0;
    while (!text.empty()) {
        size_t newline = text.find('\n');
        std::string_view line = text.substr(0, newline);
        text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
        number++;
        std::vector<std::string_view> words = Words(line);
        if (words.empty() || words[0][0] == '#') continue;
        Member m;
        if (words.size() != 3 || !ParseLimit(words[1], &m.limit) || !ParseKeep(words[2], &m.keep)) {
            *error =
                "line " + std::to_string(number) + ": not PATH LIMIT KEEP: " + std::string(line);
            return false;
        }
        m.folder = words[0].back() == '/';
        m.path = std::string(words[0].substr(0, words[0].size() - (m.folder ? 1 : 0)));
        members->push_back(std::move(m));
    }
    return true;
}

bool IsPlaceholder(std::string_view component) {
    return component == "<pid>" || component == "<fd>" || component == "<inode>" ||
           component == "<name>";
}

static bool IsNumber(std::string_view name) {
    if (name.empty() || name.size() > 10) return false;
    if (name[0] == '0') return name.size() == 1;
    for (char c : name) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

static bool IsName(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name[0] == ' ') return false;
    for (char c : name) {
        if (c < 0x20 || c > 0x7e || c == '/') return false;
    }
    return true;
}

bool FitsComponent(std::string_view pattern, std::string_view name) {
    if (pattern == "<name>") return IsName(name);
    if (IsPlaceholder(pattern)) return IsNumber(name);
    return pattern == name;
}

}  // namespace quarry::capture

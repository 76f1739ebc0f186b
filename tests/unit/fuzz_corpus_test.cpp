// Replays every fuzz corpus file (seeds and kept crashers) through its parser, so inputs that
// once broke a parser stay tested in every build. Built a second time with
// QUARRY_REPORT_ENTRIES for the report targets, which need the tool built with scratch paths.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#ifdef QUARRY_REPORT_ENTRIES
#include "report_entries.h"
#define FUZZ_ENTRIES ReportFuzzEntries
#else
#include "entries.h"
#define FUZZ_ENTRIES FuzzEntries
#endif

TEST(FuzzCorpus, EveryInputRuns) {
    size_t inputs = 0;
    for (const auto& [name, entry] : FUZZ_ENTRIES()) {
        std::filesystem::path dir = std::filesystem::path(QUARRY_CORPUS_DIR) / name;
        ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
        for (const auto& file : std::filesystem::directory_iterator(dir)) {
            std::ifstream in(file.path(), std::ios::binary);
            std::string data((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
            entry(reinterpret_cast<const uint8_t*>(data.data()), data.size());
            inputs++;
        }
    }
    EXPECT_GE(inputs, FUZZ_ENTRIES().size() * 2);
}

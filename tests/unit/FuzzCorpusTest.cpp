/*
 * Replays the checked-in fuzz corpus (tests/fuzz/corpus/<target>/): the seeds
 * and every input that once made a target fail, through the same entry
 * functions libFuzzer calls, built with the normal compiler. Each input must
 * be refused or accepted sanely, without a crash.
 */
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzTargets.h"
#include "client/row_decoder.h"

namespace {

using Target = std::string (*)(const uint8_t*, size_t);

std::vector<std::string> CorpusFiles(const std::string& target)
{
    std::vector<std::string> files;
    const std::string dir = std::string(TILVANE_FUZZ_CORPUS_DIR) + "/" + target;
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
        return files;
    }
    while (dirent* entry = readdir(handle)) {
        if (entry->d_name[0] != '.') {
            files.push_back(dir + "/" + entry->d_name);
        }
    }
    closedir(handle);
    return files;
}

void Replay(const std::string& name, Target target)
{
    const std::vector<std::string> files = CorpusFiles(name);
    ASSERT_FALSE(files.empty()) << "no corpus for " << name;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        ASSERT_TRUE(in.is_open()) << file;
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ("", target(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) << file;
    }
}

TEST(FuzzCorpusTest, BundleDecode) { Replay("BundleDecode", tilvane::fuzz::BundleDecode); }
TEST(FuzzCorpusTest, RowDecode) { Replay("RowDecode", tilvane::fuzz::RowDecode); }
TEST(FuzzCorpusTest, ManifestParse) { Replay("ManifestParse", tilvane::fuzz::ManifestParse); }
TEST(FuzzCorpusTest, JsonLinesRead) { Replay("JsonLinesRead", tilvane::fuzz::JsonLinesRead); }

/* An encoding of rows without columns was once read as four thousand
 * million empty rows (corpus file RowDecode/zero-columns-many-rows). */
TEST(FuzzCorpusTest, RowDecodeRefusesRowsWithoutColumns)
{
    const uint8_t rows[] = {1, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};
    tilvane::client::RowSet decoded;
    EXPECT_FALSE(tilvane::host::DecodeRows(rows, sizeof rows, decoded));
    const uint8_t none[] = {1, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(tilvane::host::DecodeRows(none, sizeof none, decoded));
    EXPECT_TRUE(decoded.rows.empty());
}

}  // namespace

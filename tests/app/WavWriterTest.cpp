#include "app/WavWriter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "config/OwnFileChecks.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

std::vector<char> readAll(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::uint32_t u32At(const std::vector<char>& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

TEST(WavWriter, WritesAFloatMonoFileWhoseSamplesAreBitExact) {
    auto file = std::filesystem::temp_directory_path() / "velmora-wav-writer-test.wav";
    std::vector<float> samples = {0.0f, 0.5f, -1.0f, 0.25f};
    ASSERT_EQ(writeFloatWav(file, 16000, samples), "");

    auto bytes = readAll(file);
    ASSERT_EQ(bytes.size(), 58u + samples.size() * 4);
    EXPECT_EQ(std::string(bytes.data(), 4), "RIFF");
    EXPECT_EQ(u32At(bytes, 4), bytes.size() - 8);
    EXPECT_EQ(std::string(bytes.data() + 8, 4), "WAVE");
    EXPECT_EQ(bytes[20], 3);              // IEEE float
    EXPECT_EQ(bytes[22], 1);              // mono
    EXPECT_EQ(u32At(bytes, 24), 16000u);  // sample rate
    EXPECT_EQ(u32At(bytes, 28), 64000u);  // bytes per second
    EXPECT_EQ(std::string(bytes.data() + 50, 4), "data");
    EXPECT_EQ(u32At(bytes, 54), samples.size() * 4);
    EXPECT_EQ(std::memcmp(bytes.data() + 58, samples.data(), samples.size() * 4), 0);
    std::filesystem::remove(file);
}

TEST(WavWriter, ReportsAFileItCannotCreate) {
    std::vector<float> samples(10, 0.0f);
    auto problem = writeFloatWav("/nonexistent-folder/x.wav", 16000, samples);
    EXPECT_NE(problem.find("Could not create"), std::string::npos);
}

// The recording is what other people said: only this user may read it, whatever the umask, and
// nothing planted at the path (a link to another file) is written through.
TEST(WavWriter, TheFileIsPrivateAndAPlantedLinkIsRefused) {
    testing::TemporaryFolder folder;
    std::vector<float> samples(10, 0.25f);
    const mode_t oldMask = ::umask(022);
    EXPECT_EQ(writeFloatWav(folder / "new.wav", 16000, samples), "");
    testing::writeText(folder / "old.wav", "earlier");
    ::chmod((folder / "old.wav").c_str(), 0644);
    EXPECT_EQ(writeFloatWav(folder / "old.wav", 16000, samples), "");
    ::umask(oldMask);
    EXPECT_EQ(testing::modeOf(folder / "new.wav"), 0600u);
    EXPECT_EQ(testing::modeOf(folder / "old.wav"), 0600u);

    testing::writeText(folder / "victim.txt", "precious");
    std::filesystem::create_symlink(folder / "victim.txt", folder / "planted.wav");
    EXPECT_EQ(writeFloatWav(folder / "planted.wav", 16000, samples),
              "Could not create " + (folder / "planted.wav").string() + ": it is a symbolic link.");
    EXPECT_EQ(testing::readText(folder / "victim.txt"), "precious");

    // Another user's file that this one may write to is neither emptied nor written.
    testing::writeText(folder / "theirs.wav", "their recording");
    ::chmod((folder / "theirs.wav").c_str(), 0666);
    if (!testing::giveToNobody(folder / "theirs.wav")) {
        GTEST_SKIP() << "handing a file to another user needs root";
    }
    EXPECT_NE(writeFloatWav(folder / "theirs.wav", 16000, samples), "");
    EXPECT_EQ(testing::readText(folder / "theirs.wav"), "their recording");
}

}  // namespace
}  // namespace velmora

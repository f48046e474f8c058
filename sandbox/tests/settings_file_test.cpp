// How a settings file is replaced, with the system calls that make it last written down.

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "cvutils/settings_file.h"

namespace {

std::vector<std::string> calls;
std::string failing_call;

std::string file_of(int descriptor) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).filename();
}

std::string content_of(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace

extern "C" int __real_rename(const char* from, const char* to);

extern "C" int __wrap_fsync(int descriptor) {
    calls.push_back("fsync " + file_of(descriptor));
    errno = EIO;
    return failing_call == "fsync" ? -1 : 0;
}

extern "C" int __wrap_rename(const char* from, const char* to) {
    calls.push_back("rename " + std::filesystem::path(from).filename().string());
    errno = EIO;
    return failing_call == "rename" ? -1 : __real_rename(from, to);
}

namespace {

class SettingsFileTest : public testing::Test {
protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "settings-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        file = directory / "settings.json";
        std::ofstream(file) << before;
        calls.clear();
        failing_call.clear();
    }
    void TearDown() override {
        std::filesystem::remove_all(directory);
    }

    const std::string before = R"({"k": 1})";
    std::filesystem::path directory;
    std::filesystem::path file;
};

TEST_F(SettingsFileTest, TheNewTextIsOnTheDiskBeforeItsNameIs) {
    settings::set(file, "k", "2");
    EXPECT_EQ(content_of(file), R"({"k": 2})");
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].substr(0, 20), "fsync settings.json.");
    EXPECT_EQ(calls[1].substr(7), calls[0].substr(6));
    EXPECT_EQ(calls[2], "fsync " + directory.filename().string());
}

TEST_F(SettingsFileTest, AFileThatCannotBeReplacedStaysAndNothingIsLeft) {
    for (const char* const call : {"fsync", "rename"}) {
        failing_call = call;
        EXPECT_THROW(settings::set(file, "k", "2"), settings::FileError);
        EXPECT_EQ(content_of(file), before);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1);
    }
}

} // namespace

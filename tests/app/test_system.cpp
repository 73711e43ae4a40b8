// What the operating system gives, the same on each.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "system/files.h"
#include "system/io_error.h"
#include "system/libraries.h"
#include "system/machine.h"
#include "system/serial_port.h"
#include "system/sockets.h"

namespace {

namespace fs = std::filesystem;

// A folder of its own, with a name that no code page of Windows has.
class Files : public ::testing::Test {
  protected:
    Files()
        : folder_(temporary_directory() + "/orvel-\xC3\xB8-\xE6\xBC\xA2-\xD0\xB6-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name()) {
        fs::remove_all(native_path(folder_));
        fs::create_directories(native_path(folder_));
    }
    ~Files() override { fs::remove_all(native_path(folder_)); }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    // remove_all() of Windows does not get into folders whose paths are long.
    void remove_folders(std::string deepest) const {
        for (; deepest != folder_; deepest.resize(deepest.rfind('/'))) {
            EXPECT_TRUE(fs::remove(native_path(deepest))) << deepest;
        }
    }

    static void write(const std::string& path, const std::string& text) {
        std::FILE* const file = open_file(path, "wb");
        ASSERT_NE(file, nullptr) << path << ": " << last_reason();
        EXPECT_EQ(std::fwrite(text.data(), 1, text.size(), file), text.size());
        EXPECT_TRUE(sync_file(file));
        std::fclose(file);
    }

    static std::string text_at(const DiskFile& file, uint64_t offset, std::size_t most) {
        std::vector<uint8_t> bytes(most);
        bytes.resize(file.read_at(offset, bytes));
        return {bytes.begin(), bytes.end()};
    }

    std::string folder_;
};

TEST_F(Files, NamesOfEveryAlphabetAreKept) {
    const std::string name = "Wei\xC3\x9F-\xE2\x82\xAC-\xF0\x9F\x93\xBB.wav";
    write(path(name), "abc");
    EXPECT_EQ(text_at(DiskFile(path(name)), 0, 10), "abc");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(native_path(folder_)))
        names.push_back(text_of(entry.path().filename()));
    EXPECT_EQ(names, std::vector<std::string>{name});
    std::ifstream stream(native_path(path(name)), std::ios::binary);
    std::string text;
    EXPECT_TRUE(stream >> text);
    EXPECT_EQ(text, "abc");
}

TEST_F(Files, LongPathsAreNoTrouble) {
    std::string deep = folder_;
    while (deep.size() < 400) deep += "/" + std::string(50, 'x');
    fs::create_directories(native_path(deep));
    write(deep + "/file", "deep");
    EXPECT_EQ(text_at(DiskFile(deep + "/file"), 1, 3), "eep");
    EXPECT_TRUE(move_file(deep + "/file", deep + "/other")) << last_reason();
    EXPECT_EQ(open_file(deep + "/file", "rb"), nullptr);
    EXPECT_TRUE(remove_file(deep + "/other")) << last_reason();
    remove_folders(deep);
}

TEST_F(Files, NamesStayNamesInALongFolder) {
    const auto before = fs::current_path();
    const std::string deep = path(std::string(100, 'd') + "/" + std::string(100, 'e'));
    fs::create_directories(native_path(deep));
    fs::current_path(native_path(deep));
    const std::string in_rec = path_in("rec", "take.sigmf-data");
    EXPECT_TRUE(is_file_name("take.sigmf-data"));
    EXPECT_FALSE(is_file_name("rec/take.sigmf-data"));
    EXPECT_FALSE(is_file_name("../take"));
    EXPECT_EQ(path_in("", "take"), "take");
    fs::create_directory("rec");
    write(in_rec, "samples");
    fs::current_path(before);
    EXPECT_EQ(text_at(DiskFile(deep + "/rec/take.sigmf-data"), 0, 10), "samples");
    EXPECT_TRUE(remove_file(deep + "/rec/take.sigmf-data")) << last_reason();
    remove_folders(deep + "/rec");
}

TEST_F(Files, AMovedFileTakesThePlaceOfAnother) {
    write(path("new"), "new");
    write(path("old"), "old one");
    EXPECT_TRUE(move_file(path("new"), path("old"))) << last_reason();
    EXPECT_EQ(text_at(DiskFile(path("old")), 0, 10), "new");
    EXPECT_FALSE(fs::exists(native_path(path("new"))));
}

TEST_F(Files, WhatIsNotThereHasAReason) {
    EXPECT_EQ(open_file(path("none"), "rb"), nullptr);
    EXPECT_EQ(last_reason(), "No such file or directory");
    EXPECT_THROW(DiskFile(path("none")), IoError);
    EXPECT_FALSE(remove_file(path("none")));
    EXPECT_EQ(last_reason(), "No such file or directory");
}

TEST_F(Files, BytesStayAsTheyAre) {
    const std::string text("a\r\nb\x1a\0c\n", 8);
    write(path("bytes"), text);
    const DiskFile file(path("bytes"));
    EXPECT_EQ(file.size(), text.size());
    EXPECT_EQ(text_at(file, 0, 100), text);
    EXPECT_EQ(text_at(file, 100, 1), "");
}

TEST(TemporaryFile, GivesBackAtAnyPlaceWhatWasAppended) {
    DiskFile file = DiskFile::temporary();
    std::vector<uint8_t> bytes(300000);
    for (std::size_t k = 0; k < bytes.size(); k++) bytes[k] = static_cast<uint8_t>(k * k >> 5);
    file.append(std::span(bytes).first(100001));
    file.append(std::span(bytes).subspan(100001));
    EXPECT_EQ(file.size(), bytes.size());
    std::vector<uint8_t> part(150000);
    EXPECT_EQ(file.read_at(90000, part), part.size());
    EXPECT_TRUE(std::equal(part.begin(), part.end(), bytes.begin() + 90000));
    EXPECT_EQ(file.read_at(299990, part), 10u);
}

TEST(Machine, HasMemory) {
    EXPECT_GT(memory_bytes(), 1e8);
}

TEST(Libraries, ThatAreNotThereAreNone) {
    EXPECT_EQ(load_library({"liborvel-has-no-such.so", "orvel-has-no-such.dll"}), nullptr);
    EXPECT_EQ(loaded_library("orvel-has-no-such.dll"), nullptr);
}

TEST(Libraries, ThatAreThereHaveFunctions) {
    void* const library = load_library({"libm.so.6", "kernel32.dll"});
    ASSERT_NE(library, nullptr);
    EXPECT_TRUE(find_symbol(library, "cos") != nullptr || find_symbol(library, "GetTickCount") != nullptr);
    EXPECT_EQ(find_symbol(library, "orvel_has_no_such"), nullptr);
}

TEST(Sockets, ARefusedConnectionHasAReason) {
    const auto addresses = resolve("127.0.0.1", "1");
    ASSERT_EQ(addresses.size(), 1u);
    std::string reason;
    try {
        const Socket socket(addresses.front());
        EXPECT_TRUE(socket.wait_to_send(5));
        socket.require_connected();
    } catch (const IoError& error) {
        reason = error.what();
    }
    EXPECT_NE(reason, "");
}

TEST(SerialPort, ThatIsNotThereIsRefused) {
    SerialPort port("/dev/orvel-has-no-such");
    EXPECT_THROW((void)port.is_port(), IoError);
    EXPECT_THROW(port.open(), IoError);
    EXPECT_FALSE(port.is_open());
}

}  // namespace

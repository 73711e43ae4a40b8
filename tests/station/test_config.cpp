// The configuration: everything in it arrives, and every mistake has its place.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/error.h"
#include "config/config.h"
#include "sound_server.h"

namespace {

namespace fs = std::filesystem;

constexpr std::array MQTT_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                  Key{"password", Kind::SECRET}};
constexpr std::array KINDS = {OutputKind{"mqtt", MQTT_KEYS}, OutputKind{"file", {}}};

class ConfigTest : public testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(folder_ / name, std::ios::binary) << text;
        return (folder_ / name).string();
    }
    Config read(const std::string& text) {
        mistakes_.clear();
        return read_config(write("station.toml", text), KINDS, mistakes_);
    }
    // "LINE:COLUMN TEXT" of the only mistake.
    std::string mistake(const std::string& text) {
        read(text);
        EXPECT_EQ(mistakes_.size(), 1u) << text;
        if (mistakes_.empty()) return "";
        return std::to_string(mistakes_[0].line) + ":" + std::to_string(mistakes_[0].column) + " " + mistakes_[0].text;
    }

    TemporaryDirectory directory_;
    fs::path folder_ = directory_.path();
    std::vector<Mistake> mistakes_;
};

const std::string LEAST = "[station]\ncallsign = \"DL1QXA\"\nlocator = \"JO62\"\n[store]\npath = \"spots.db\"\n";

TEST_F(ConfigTest, HoldsAllThatTheFileSays) {
    const std::string secret = write("secret", "hush\nnot this\n");
    const Config config = read(R"(
[station]
callsign = "DL1QXA"
locator = "jo62qm"
antenna = "30 m of wire, höher"
[store]
path = "/var/lib/orvel/spots.db"
keep_days = 400
[web]
address = "127.0.0.1"
port = 8073
[[receiver]]
name = "lf"
source = "rtl_tcp://127.0.0.1:1234?freq=137500"
iq = true
dial = 137500
center = -2.5
known = ["K2QRX", "G4QZB"]
coherent = true
wide = false
hours = ["18:00-06:00", "12:00-12:30"]
[[receiver]]
name = "mf"
source = ""
protocols = "opera"
[[output]]
type = "mqtt"
host = "broker"
password_file = ")" + secret + R"("
[[output]]
type = "file"
name = "log"
)");
    ASSERT_TRUE(mistakes_.empty()) << mistakes_[0].text;
    EXPECT_EQ(config.station.text("callsign"), "DL1QXA");
    EXPECT_EQ(config.station.text("antenna"), "30 m of wire, höher");
    EXPECT_EQ(config.store.number("keep_days", 0), 400);
    EXPECT_EQ(config.store.number("most_megabytes", 7), 7);
    ASSERT_TRUE(config.web);
    EXPECT_EQ(config.web->port, 8073);
    ASSERT_EQ(config.receivers.size(), 2u);
    EXPECT_EQ(config.receivers[0].arguments,
              (std::vector<std::string>{"--receiver", "lf=rtl_tcp://127.0.0.1:1234?freq=137500", "--iq",
                                        "--dial=137500", "--center=-2.5", "--known=K2QRX,G4QZB", "--coherent"}));
    EXPECT_EQ(config.receivers[0].hours, (std::vector<Hours>{{18 * 60, 6 * 60}, {12 * 60, 12 * 60 + 30}}));
    EXPECT_EQ(config.receivers[1].arguments, (std::vector<std::string>{"--receiver", "mf=", "--protocol=opera"}));
    ASSERT_EQ(config.outputs.size(), 2u);
    EXPECT_EQ(config.outputs[0].name, "mqtt");
    EXPECT_EQ(config.outputs[0].values.text("password"), "hush");
    EXPECT_EQ(config.outputs[1].name, "log");
    EXPECT_EQ(config.outputs[1].type, "file");
}

TEST_F(ConfigTest, NamesThePlaceOfEveryMistake) {
    EXPECT_EQ(mistake(LEAST + "[web]\nport = 70000\n"), "7:8 web: port is out of range (0 to 65535)");
    EXPECT_EQ(mistake(LEAST + "[web]\nport = \"x\"\n"), "7:8 web: port is not a number");
    EXPECT_EQ(mistake(LEAST + "[web]\nport = true\n"), "7:8 web: port is not a number");
    EXPECT_EQ(mistake(LEAST + "[web]\nport = nan\n"), "7:8 web: port is not a number");
    EXPECT_EQ(mistake(LEAST + "[web]\nhost = \"x\"\n"), "7:8 web: 'host' is not one of address, port, token, hosts");
    EXPECT_EQ(mistake(LEAST + "[web]\naddress = \"0.0.0.0\"\n"),
              "6:1 web: whoever is not on this machine needs a token");
    EXPECT_EQ(mistake(LEAST + "[wbe]\n"), "6:1 'wbe' is not one of station, store, web, receiver, output");
    EXPECT_EQ(mistake("[store]\npath = \"x\"\n"), "1:1 [station] is missing");
    EXPECT_EQ(mistake(LEAST + "[receiver]\nname = \"lf\"\n"), "6:1 write [[receiver]], as there may be several");
    EXPECT_EQ(mistake(LEAST + "[[receiver]]\nname = \"lf\"\n"), "6:1 receiver: source is missing");
    EXPECT_EQ(mistake(LEAST + "[[receiver]]\nname = \"l f\"\nsource = \"\"\n"),
              "6:1 receiver: a name is 1 to 64 letters, digits, _ and -");
    EXPECT_EQ(mistake(LEAST + "[[receiver]]\nname = \"a\"\nsource = \"\"\nhours = \"25:00-1:00\"\n"),
              "6:1 receiver: '25:00-1:00' are no hours like 18:00-06:00");
    EXPECT_EQ(mistake(LEAST + "[[receiver]]\nname = \"a\"\nsource = \"\"\nknown = [1]\n"),
              "9:9 receiver: known is neither a text nor an array of texts");
    EXPECT_EQ(mistake(LEAST + "[[receiver]]\nname = \"a\"\nsource = \"\"\niq = 1\n"),
              "9:6 receiver: iq is neither true nor false");
    EXPECT_EQ(mistake(LEAST + "[[output]]\ntype = \"fax\"\n"), "6:1 output: 'fax' is not one of mqtt, file");
    EXPECT_EQ(mistake(LEAST + "[[output]]\ntype = \"mqtt\"\nhost = \"h\"\npassword_file = \"/none/x\"\n"),
              "9:17 output: password cannot be read from '/none/x'");
    EXPECT_EQ(mistake("[station]\ncallsign = \"A\"\nlocator = \"XX\"\n[store]\npath = \"x\"\n"),
              "1:1 station: 'XX' is no locator of 4 or 6 characters");
    read(LEAST + "[[output]]\ntype = \"file\"\n[[output]]\ntype = \"file\"\n[web]\nport = -1\n");
    ASSERT_EQ(mistakes_.size(), 2u);
    EXPECT_EQ(mistakes_[0].text, "output: 'file' is there twice");
    EXPECT_EQ(mistakes_[1].line, 11u);
}

TEST_F(ConfigTest, IsReadAsFarAsItIsNoToml) {
    read("[station\n");
    ASSERT_EQ(mistakes_.size(), 1u);
    EXPECT_EQ(mistakes_[0].line, 1u);
    read(LEAST + "x = 1\nx = 2\n");
    ASSERT_EQ(mistakes_.size(), 1u);
    EXPECT_EQ(mistakes_[0].line, 7u);
    EXPECT_THROW(read_config((folder_ / "none.toml").string(), KINDS, mistakes_), IoError);
    EXPECT_THROW(read_config(folder_.string(), KINDS, mistakes_), IoError);
    EXPECT_THROW(read(std::string(2 << 20, '#')), IoError);
}

TEST(Hours, PassMidnight) {
    const double midnight = 86400.0 * 20000;
    const Hours night{18 * 60, 6 * 60};
    EXPECT_TRUE(night.contain(midnight));
    EXPECT_TRUE(night.contain(midnight + 18 * 3600));
    EXPECT_FALSE(night.contain(midnight + 18 * 3600 - 1));
    EXPECT_FALSE(night.contain(midnight + 6 * 3600));
    const Hours noon{12 * 60, 12 * 60 + 30};
    EXPECT_TRUE(noon.contain(midnight + 12 * 3600));
    EXPECT_FALSE(noon.contain(midnight + 12.5 * 3600));
}

}  // namespace

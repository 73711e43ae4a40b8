// The collector's configuration.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/error.h"
#include "collector.h"
#include "sound_server.h"

namespace {

const std::string LEAST = "[broker]\nhost = \"h\"\n[database]\nconnection = \"dbname=orvel\"\n";

class CollectorConfigTest : public testing::Test {
  protected:
    CollectorConfig read(const std::string& text) {
        const std::string path = folder_.path() + "/c.toml";
        std::ofstream(path) << text;
        mistakes_.clear();
        return read_collector_config(path, mistakes_);
    }

    std::string mistake(const std::string& text) {
        read(text);
        if (mistakes_.empty()) return "";
        return std::to_string(mistakes_[0].line) + ":" + std::to_string(mistakes_[0].column) + " " + mistakes_[0].text;
    }

    TemporaryDirectory folder_;
    std::vector<Mistake> mistakes_;
};

TEST_F(CollectorConfigTest, ReadsWhatIsThere) {
    const CollectorConfig config = read(LEAST + "[collector]\nname = \"second\"\n");
    EXPECT_TRUE(mistakes_.empty());
    EXPECT_EQ(config.broker.text("host"), "h");
    EXPECT_EQ(config.broker.text("prefix", "orvel"), "orvel");
    EXPECT_EQ(config.database.text("connection"), "dbname=orvel");
    EXPECT_EQ(config.collector.text("name"), "second");
}

TEST_F(CollectorConfigTest, NamesEveryMistakeWithItsPlace) {
    EXPECT_EQ(mistake(LEAST), "");
    EXPECT_EQ(mistake("[broker]\nhost = \"h\"\n"), "1:1 [database] is missing");
    EXPECT_EQ(mistake(LEAST + "[collctor]\n"), "5:1 'collctor' is not one of broker, database, collector");
    EXPECT_EQ(mistake("broker = 3\n[database]\nconnection = \"\"\n"), "1:10 'broker' is not a table");
    read("[broker]\nport = 70000\n[database]\n");
    EXPECT_EQ(mistakes_.size(), 3u) << "no host, no such port, no connection";
    EXPECT_NE(mistake("[broker\n"), "");
    EXPECT_THROW(read_collector_config("/none/x", mistakes_), IoError);
}

TEST_F(CollectorConfigTest, TheExampleIsRightWithAllOfItsSettings) {
    std::ifstream example(ORVEL_EXAMPLE);
    std::string text;
    for (std::string line; std::getline(example, line);) {
        const bool off = line.starts_with("#") && !line.starts_with("# ");
        text += (off ? line.substr(1) : line) + "\n";
    }
    EXPECT_EQ(mistake(text), "");
    const CollectorConfig config = read(text);
    for (const char* const key : {"host", "port", "user", "password", "ca_file", "prefix"}) {
        EXPECT_TRUE(config.broker.has(key)) << key;
    }
    for (const char* const key : {"connection", "password"}) EXPECT_TRUE(config.database.has(key)) << key;
    EXPECT_TRUE(config.collector.has("name"));
}

}  // namespace

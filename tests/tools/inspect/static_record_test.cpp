#include "static_record.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "record_json.h"

TEST(StaticRecord, TextIsSplitAtItsTitles) {
    for (const auto& [text, records] : std::vector<std::pair<std::string, std::string>>{
             {"- [5, 1]\n", R"([{"section":"","text":"- [5, 1]\n"}])"},
             {"kernel_config:\n - A=\"security:\"\n\npower_cycles:\n\nsecurity:\nx",
              R"([{"section":"kernel_config","text":" - A=\"security:\"\n"},)"
              R"({"section":"power_cycles","text":""},{"section":"security","text":"x"}])"},
             {"widevine security level:\n- 5\n- L1\n\n\nims service status:\n- [5]\n",
              R"([{"section":"widevine security level","text":"- 5\n- L1\n\n"},)"
              R"({"section":"ims service status","text":"- [5]\n"}])"}}) {
        upload_file file;
        file.payload.assign(text.begin(), text.end());
        const auto object = json_object::parse(record_json(static_record_add_json, file));
        EXPECT_EQ(object["records"].dump(), records);
    }
}

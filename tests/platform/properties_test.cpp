// The phone's properties on Linux: limits, and values that change under a reader.
#include "platform/properties.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/dialogue.h"
#include "support/files.h"

namespace {

std::string get(const char* key, const char* default_value) {
    char value[PROPERTY_VALUE_MAX];
    const int len = property_get(key, value, default_value);
    EXPECT_EQ(static_cast<size_t>(len), strlen(value));
    return value;
}

// "91*v" is 91 letters; a word that is missing is no text.
std::string spelled_out(const std::vector<std::string>& words, size_t i) {
    if (i >= words.size()) return "";
    const size_t star = words[i].find('*');
    return star == words[i].npos ? words[i] : std::string(std::stoul(words[i]), words[i][star + 1]);
}

std::string answer(const std::string& block) {
    std::string text;
    for (const auto& words : words_of(block)) {
        const std::string name = spelled_out(words, 1), value = spelled_out(words, 2);
        const char* other = words.size() > 2 ? value.c_str() : nullptr;
        if (words[0] == "set") text += std::to_string(property_set(name.c_str(), other)) + "\n";
        if (words[0] == "get") text += '"' + get(name.c_str(), other) + "\"\n";
        if (words[0] == "file") put_files({{"/dev/properties/" + name, value}});
        if (words[0] == "see") text += '"' + file_text("/dev/properties/" + name) + "\"\n";
    }
    return text;
}

TEST(PhoneProperties, NamesAndValuesHaveTheirLimits) {
    expect_dialogue("platform/properties", answer);
}

TEST(PhoneProperties, ReaderFindsTheOldValueOrTheNew) {
    const std::string values[] = {std::string(91, 'a'), std::string(40, 'b')};
    ASSERT_EQ(property_set("vendor.torn", values[0].c_str()), 0);
    const auto set = [&] {
        for (int i = 0; i < 5000; ++i)
            EXPECT_EQ(property_set("vendor.torn", values[i % 2].c_str()), 0);
    };
    std::thread one(set), other(set);
    for (int i = 0; i < 5000; ++i) {
        const std::string seen = get("vendor.torn", "none");
        EXPECT_TRUE(seen == values[0] || seen == values[1]) << seen;
    }
    one.join();
    other.join();
}

}  // namespace

// The phone's properties on Linux: limits, and values that change under a reader.
#include "platform/properties.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/files.h"

namespace {

std::string get(const char* key, const char* default_value = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    const int len = property_get(key, value, default_value);
    EXPECT_EQ(static_cast<size_t>(len), strlen(value));
    return value;
}

TEST(PhoneProperties, ValueIsAFileWithoutANewline) {
    EXPECT_EQ(property_set("vendor.test", "1"), 0);
    EXPECT_EQ(read_file("/dev/properties/vendor.test"), "1");
    EXPECT_EQ(get("vendor.test", "other"), "1");
    EXPECT_EQ(property_set("vendor.test", ""), 0);
    EXPECT_EQ(get("vendor.test", "an empty one counts as none"), "an empty one counts as none");
    EXPECT_EQ(get("vendor.missing"), "");
}

TEST(PhoneProperties, LongestValueIs91Bytes) {
    const std::string longest(91, 'v');
    EXPECT_EQ(property_set("vendor.long", longest.c_str()), 0);
    EXPECT_EQ(get("vendor.long"), longest);
    EXPECT_LT(property_set("vendor.long", (longest + "v").c_str()), 0);
    EXPECT_EQ(get("vendor.long"), longest) << "a refused set changes nothing";
    put_files({{"/dev/properties/vendor.longer", std::string(500, 'w')}});
    EXPECT_EQ(get("vendor.longer"), std::string(91, 'w'));
    EXPECT_EQ(get("vendor.missing", std::string(500, 'd').c_str()), std::string(91, 'd'));
}

TEST(PhoneProperties, NamesCannotLeaveTheDirectory) {
    put_files({{"/dev/secret", "x"}});
    const std::string endless(5000, 'n');
    for (const char* name : {"", ".", "..", "../secret", "a/b", ".hidden", endless.c_str()}) {
        EXPECT_LT(property_set(name, "y"), 0) << name;
        EXPECT_EQ(get(name, "default"), "default") << name;
    }
    EXPECT_EQ(read_file("/dev/secret"), "x");
}

TEST(PhoneProperties, ReaderFindsTheOldValueOrTheNew) {
    const std::string values[] = {std::string(91, 'a'), std::string(40, 'b')};
    ASSERT_EQ(property_set("vendor.torn", values[0].c_str()), 0);
    std::atomic<bool> stop{false};
    const auto set = [&] {
        for (int i = 0; !stop; ++i)
            EXPECT_EQ(property_set("vendor.torn", values[i % 2].c_str()), 0);
    };
    std::thread one(set), other(set);
    std::string seen = values[0];
    for (int i = 0; i < 5000 && (seen == values[0] || seen == values[1]); ++i)
        seen = get("vendor.torn", "none");
    stop = true;
    one.join();
    other.join();
    EXPECT_TRUE(seen == values[0] || seen == values[1]) << seen;
}

}  // namespace

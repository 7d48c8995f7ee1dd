// The tools at a shell.
#include <gtest/gtest.h>

#include "support/dialogue.h"

TEST(ToolSession, CallsAreAnsweredOrRefused) {
    for (const char* name : {"tools/campaign", "tools/phone"}) {
        const shell_session session;
        expect_dialogue(name, [&](const std::string& commands) { return session.run(commands); });
    }
}

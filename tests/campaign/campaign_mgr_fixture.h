// The campaign manager's thread in a test, and what its neighbours do to it.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <string>
#include <thread>

#include "campaign/campaign_mgr.h"
#include "campaign/campaign_switch.h"
#include "campaign/campaign_table.h"
#include "campaign/control_socket.h"
#include "mps_events/mps_events.h"
#include "platform_test.h"
#include "support/events.h"
#include "support/files.h"
#include "support/log.h"

namespace fs = std::filesystem;

inline constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/101";
inline constexpr char DONE[] = "/data/vendor/vexastats/101/cdf.dat.done";
inline constexpr uint64_t NOW_S = PLATFORM_TEST_REAL_MS / 1000;
inline constexpr uint64_t LATER = NOW_S + 1000;
inline constexpr char START[] = "mps_set_event: Setting event 256";
inline constexpr char STOP[] = "mps_set_event: Setting event 512";

inline std::string message(uint32_t id, uint32_t size, const std::string& payload) {
    std::string bytes;
    for (const uint32_t word : {id, size}) {
        for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(word >> shift);
    }
    return bytes + payload;
}
inline const std::string SUB_1 =
    message(2, 8, std::string("\0\0\0\1\1\6\0\7", 8));  // MCC 262, MNC 7

class CampaignManager : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* dir : {"/data/vendor/vexa", "/data/vendor/vexastats", "/dev/socket/vexa"})
            fs::remove_all(dir);
        for (const char* dir : {DOWN_DIR, CAMPAIGN_DIR, "/dev/socket/vexa"})
            fs::create_directories(dir);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        platform_test_set_clock(platform_test_clock::MANUAL);
        platform_test_set_real_ms(PLATFORM_TEST_REAL_MS);
        mps_clear_event(UINT32_MAX);
        const vexa_lock lock(g_campaign.lock);
        g_campaign.state = {};
    }
    void TearDown() override { stop(); }

    void start() {
        thread = std::thread([] { campaign_mgr_main(nullptr); });
    }
    void stop() {
        if (!thread.joinable()) return;
        pthread_kill(thread.native_handle(), SIGUSR1);
        thread.join();
    }
    static void wait_log(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << "\n"
                                                                       << log_text();
    }
    static void wait_parked() { ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())); }

    static unique_fd connected() {
        unique_fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const timeval limit{.tv_sec = EVENT_LIMIT.count() / 1000, .tv_usec = 0};
        (void)setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        strcpy(address.sun_path, CONTROL_SOCKET);
        EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return client;
    }
    // Sends, and waits until the manager has closed the connection.
    static void say(const std::string& bytes) {
        const unique_fd client = connected();
        (void)send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        (void)shutdown(client.get(), SHUT_WR);
        char byte;
        EXPECT_LE(recv(client.get(), &byte, 1, 0), 0);
    }
    static phone_state phone() {
        phone_state state;
        EXPECT_TRUE(campaign_mgr_get_ph_info(&state));
        return state;
    }
    static uint32_t active_id(uint32_t module = 6) {
        owned_bytes logic;
        uint32_t id = 0;
        campaign_mgr_get_campaign(module, &logic, &id);
        return id;
    }
    // Lets time pass until module 6 has that campaign and its delivery is through.
    static void pass_until_active(uint32_t id) {
        const auto end = std::chrono::steady_clock::now() + EVENT_LIMIT;
        while (active_id() != id || fs::exists(DONE)) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << log_text();
            wait_parked();  // or the campaigns' time would be over before they are looked at
            platform_test_advance_ms(100);
        }
    }
    static size_t open_descriptors() { return list_dir("/.host/proc/self/fd").size(); }

    std::thread thread;
};

inline unique_campaign campaign(uint64_t id, uint64_t expiry = LATER, bool running = false) {
    unique_campaign entry = campaign_entry_new();
    entry->campaignId = id;
    entry->expiryValue = expiry;
    entry->running = running ? 1 : 0;
    return entry;
}

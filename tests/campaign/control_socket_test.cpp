// The manager's control socket: what its clients can do, and what they cannot.
#include "campaign/control_socket.h"

#include "campaign/campaign_mgr_fixture.h"

namespace {

constexpr char NO_HEADER[] = "handleIncomingSocketMsg:Count not read MsgID from incoming msg\n";
constexpr int64_t BURST_MS = 60000;

TEST_F(CampaignManager, BadClientsChangeNothingAndLeakNoDescriptor) {
    start();
    wait_log("campaign_mgr_main:Going into poll\n");
    say(SUB_1);
    EXPECT_EQ(phone().default_sub, 1u);
    EXPECT_EQ(phone().mcc, 262);
    EXPECT_EQ(phone().mnc, 7);
    say(message(1, 1, "\x80"));
    EXPECT_EQ(phone().roaming, 1);
    const struct {
        std::string sent;
        std::string logged;
    } CLIENTS[] = {
        {"", NO_HEADER},
        {message(1, 1, "").substr(0, 7), NO_HEADER},
        {message(0, 99, "x"), "handleIncomingSocketMsg: MSG id 0 Size 99\n"},
        {message(1, 2, std::string(2, '\0')),
         "handleIncomingSocketMsg:Wrong msg_size 2 received for msg_id 1\n"},
        {message(3, 0x80000008, std::string(8, '\0')),
         "handleIncomingSocketMsg:Wrong msg_size -2147483640 received for msg_id 3\n"},
        {message(4, 1, std::string(1, '\0')), "handleIncomingSocketMsg:Unrecongnizable Msg Id 4\n"},
        {message(2, 8, std::string(7, '\0')),
         "handleIncomingSocketMsg:Count not read Roaming Status from incoming msg\n"},
    };
    wait_parked();
    const size_t before = open_descriptors();
    for (int i = 0; i < 1000; ++i) {
        const auto& client = CLIENTS[static_cast<size_t>(i) % std::size(CLIENTS)];
        wait_parked();
        platform_test_advance_ms(BURST_MS);  // each of them is a burst of its own
        platform_test_clear_log();
        say(client.sent);
        ASSERT_EQ(platform_test_log_count(client.logged), 1u) << client.logged << log_text();
    }
    wait_parked();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(phone().default_sub, 1u);
    EXPECT_EQ(phone().roaming, 1);
    say(message(1, 1, std::string(1, '\0')));
    EXPECT_EQ(phone().roaming, 0);
}

// Nobody waits for a silent client, not the next ones and not the campaigns; nor does it wait for
// longer than ten seconds. The ninth is served once a place is free.
TEST_F(CampaignManager, SilentClientsDelayNobody) {
    start();
    wait_log("campaign_mgr_main:Going into poll\n");
    wait_parked();
    const size_t before = open_descriptors();
    std::vector<unique_fd> silent;
    for (size_t i = 1; i < CONTROL_CLIENTS_MAX; ++i) silent.push_back(connected());
    say(SUB_1);
    (void)send(silent[0].get(), "half", 4, MSG_NOSIGNAL);
    campaign_table table;
    table[6] = campaign(5, NOW_S + 8, true);
    updateCampaignTableAndAct(table);
    say(SUB_1);  // which takes the time-out of the change
    EXPECT_EQ(platform_test_log_count(START), 1u) << log_text();
    silent.push_back(connected());
    const unique_fd ninth = connected();
    (void)send(ninth.get(), SUB_1.data(), SUB_1.size(), MSG_NOSIGNAL);
    wait_parked();
    platform_test_advance_ms(8000);
    wait_log(STOP);
    wait_parked();
    EXPECT_EQ(platform_test_log_count("Default Sub changed to 1 MCC 262 MNC 7\n"), 2u);
    platform_test_advance_ms(1999);
    wait_parked();
    EXPECT_EQ(platform_test_log_count(NO_HEADER), 0u);
    platform_test_advance_ms(1);
    wait_log(NO_HEADER);
    wait_parked();
    platform_test_advance_ms(10);  // the socket's rest after a burst
    char byte;
    EXPECT_EQ(recv(ninth.get(), &byte, 1, 0), 0);
    EXPECT_EQ(platform_test_log_count("Default Sub changed to 1 MCC 262 MNC 7\n"), 3u);
    for (const unique_fd& fd : silent) EXPECT_LE(recv(fd.get(), &byte, 1, 0), 0);
    silent.clear();
    wait_parked();
    EXPECT_EQ(open_descriptors(), before + 1) << "the ninth's own end";
    const unique_fd other = connected();
    wait_parked();
    stop();
}

TEST_F(CampaignManager, FloodOfBadMessagesCostsOneLine) {
    constexpr size_t COUNT = 1000;
    start();
    wait_log("campaign_mgr_main:Going into poll\n");
    wait_parked();
    platform_test_clear_log();
    for (size_t i = 0; i < COUNT; ++i) {
        say(i % 2 == 0 ? message(9, 1, "x") : "");
        platform_test_advance_ms(10);
    }
    wait_parked();
    EXPECT_EQ(platform_test_log().size(), 5u) << "the first one's" << log_text();
    platform_test_clear_log();
    const unique_fd slow = connected();
    wait_parked();
    say(SUB_1);
    EXPECT_EQ(platform_test_log_count("Default Sub changed to 1 MCC 262 MNC 7\n"), 1u);
    (void)send(slow.get(), SUB_1.data(), SUB_1.size(), MSG_NOSIGNAL);
    char byte;
    (void)recv(slow.get(), &byte, 1, 0);
    EXPECT_EQ(platform_test_log_count("Default Sub changed to 1 MCC 262 MNC 7\n"), 2u);
    EXPECT_EQ(platform_test_log_count("campaign_mgr_main:Socket file pollin\n"), 2u);
    EXPECT_EQ(platform_test_log_count("campaign_mgr_main:Coming out of poll 1\n"), 2u);
    wait_parked();
    platform_test_clear_log();
    platform_test_advance_ms(BURST_MS);
    wait_parked();
    EXPECT_EQ(platform_test_log().size(), 1u) << log_text();
    EXPECT_EQ(platform_test_log_count("campaign_mgr_main: 999 more messages were of no use\n"), 1u);
    for (const size_t lines : {0u, 4u}) {  // the burst goes on for a minute, and is over
        platform_test_clear_log();
        say("");
        wait_parked();
        EXPECT_EQ(platform_test_log().size(), lines) << log_text();
        platform_test_advance_ms(BURST_MS);
        wait_parked();
        platform_test_advance_ms(BURST_MS);
        wait_parked();
    }
}

}  // namespace

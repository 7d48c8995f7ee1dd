// The messaging library against a modem that does everything a modem should not.
#include "platform/kbr.h"

#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <future>

#include "host/kbr_message.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/kbr_service.h"

namespace {

struct item {
    uint32_t kind;
    uint32_t id_len;
    uint8_t id[4];
};
struct everything {
    uint32_t result, error;
    uint8_t flag;
    uint16_t half;
    uint32_t word;
    uint32_t bytes_len;
    uint8_t bytes[5];
    uint8_t items_valid;
    uint32_t items_len;
    item items[2];
};

constexpr kbr_field ITEM[] = {kbr_scalar(0, offsetof(item, kind), 4),
                              kbr_bytes(0, offsetof(item, id_len), 4)};
constexpr kbr_field EVERYTHING[] = {
    kbr_scalar(0x01, offsetof(everything, half), 2),
    kbr_result(0x02, offsetof(everything, result)),
    kbr_scalar(0x10, offsetof(everything, word), 4, offsetof(everything, flag)),
    kbr_bytes(0x11, offsetof(everything, bytes_len), 5),
    {.type = 0x13,
     .kind = KBR_ARRAY,
     .offset = offsetof(everything, items_len),
     .size = sizeof(item),
     .max = 2,
     .flag_offset = offsetof(everything, items_valid),
     .members = ITEM},
};
constexpr kbr_message EVERYTHING_MESSAGE = {9, sizeof(everything), EVERYTHING};

struct number {
    uint32_t result, error, value;
};
constexpr kbr_field VALUE[] = {kbr_scalar(0x01, 0, 4)};
constexpr kbr_field NUMBER[] = {kbr_scalar(0x01, offsetof(number, value), 4),
                                kbr_result(0x02, offsetof(number, result))};
constexpr kbr_message REQUESTS[] = {{1, 4, VALUE}};
constexpr kbr_message RESPONSES[] = {{1, sizeof(number), NUMBER}};
constexpr kbr_message INDICATIONS[] = {{2, 4, VALUE}};
constexpr kbr_service_object SERVICE = {
    .name = "test", .requests = REQUESTS, .responses = RESPONSES, .indications = INDICATIONS};

// Answers a request with its own value.
std::string echo(const std::string& request) {
    return response_to(request, request.substr(7) + hex_bytes("02 0400 0000 0000"));
}

std::string indication(uint32_t value) {
    std::string packet = hex_bytes("02 0000 0200 0700 01 0400");
    return packet.append(reinterpret_cast<const char*>(&value), sizeof value);
}

int call(kbr_client* client, uint32_t value, uint32_t* answer = nullptr) {
    number response = {};
    const int result = kbr_client_send_msg_sync(client, 1, &value, sizeof value, &response,
                                                sizeof response, 10000);
    if (answer) *answer = response.value;
    return result;
}

class Kbr : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_test_set_clock(platform_test_clock::MANUAL);
        descriptors = list_dir("/proc/self/fd").size();
    }
    void TearDown() override {
        modem.hang_up();
        EXPECT_EQ(list_dir("/proc/self/fd").size(), descriptors);
    }
    kbr_client* connect(kbr_indication_cb callback = nullptr, void* data = nullptr) {
        kbr_client* client = nullptr;
        EXPECT_EQ(kbr_client_init_instance(&SERVICE, KBR_ANY_INSTANCE, callback, data, 4, &client),
                  0);
        modem.accept();
        return client;
    }
    static std::future<int> call_async(kbr_client* client, uint32_t value) {
        return std::async(std::launch::async, [=] { return call(client, value); });
    }

    kbr_service modem{"test"};
    size_t descriptors = 0;
};

TEST(KbrMessage, EveryKindOfFieldIsWrittenAndReadByteForByte) {
    const std::string bytes = hex_bytes(
        "01 0200 3412  02 0400 0100 1a00  10 0400 efbeadde  11 0500 0300 616263"
        "13 0f00 0200 01000000 0000 02000000 0100 ff");
    everything in = {};
    in.result = 1;
    in.error = 26;
    in.half = 0x1234;
    in.flag = 1;
    in.word = 0xdeadbeef;
    in.bytes_len = 3;
    memcpy(in.bytes, "abcd", 4);
    in.items_valid = 1;
    in.items_len = 2;
    in.items[0] = {.kind = 1, .id_len = 0, .id = {}};
    in.items[1] = {.kind = 2, .id_len = 1, .id = {0xff}};
    uint8_t out[100] = {};
    size_t len = 0;
    ASSERT_LE(kbr_message_max_len(EVERYTHING_MESSAGE), sizeof out);
    ASSERT_EQ(kbr_encode(EVERYTHING_MESSAGE, &in, out, &len), KBR_OK);
    EXPECT_EQ(std::string(out, out + len), bytes);

    in.bytes_len = 6;
    EXPECT_EQ(kbr_encode(EVERYTHING_MESSAGE, &in, out, &len), KBR_ERR_FORMAT);
}

TEST(KbrMessage, DecodesWhatFitsAndNothingElse) {
    const std::string mandatory = "01 0200 0000  02 0400 0000 0000  11 0200 0000";
    const std::pair<std::string, bool> cases[] = {
        {mandatory, true},
        {"00 0100 ff" + mandatory + "fe 0000", true},  // unknown fields
        {"11 0200 0000  02 0400 0000 0000  01 0200 0000", true},
        {mandatory + "11 0300 0200 01", true},  // a second time
        {"01 0200 0000  02 0400 0000 0000  11 0700 0500 0102030405", true},
        {"01 0200 0000  02 0400 0000 0000  11 0800 0600 010203040506", false},
        {"01 0200 0000  02 0400 0000 0000  11 0300 0200 01", false},
        {"01 0200 0000  02 0400 0000 0000  11 0400 0100 0102", false},
        {"01 0200 0000  11 0200 0000", false},  // a mandatory field is missing
        {"", false},
        {"01 0400 00000000" + mandatory, false},
        {mandatory + "10 0300 000000", false},
        {"01 0200 0000  02 0300 0000 00  11 0200 0000", false},
        {mandatory + "13 1400 0300 000000000000 000000000000 000000000000", false},
        {mandatory + "fe 0100", false},
        {mandatory + "fe 01", false},
    };
    for (const auto& [text, good] : cases) {
        const std::string bytes = hex_bytes(text);
        everything out;
        EXPECT_EQ(kbr_decode(EVERYTHING_MESSAGE, reinterpret_cast<const uint8_t*>(bytes.data()),
                             bytes.size(), &out),
                  good ? KBR_OK : KBR_ERR_FORMAT)
            << text;
    }
}

TEST_F(Kbr, TimeOutIsExactAndALateAnswerIsNotTheNextCalls) {
    kbr_client* client = connect();
    std::future<int> first = call_async(client, 1);
    const std::string request = modem.receive();
    EXPECT_EQ(request, hex_bytes("00 0100 0100 0700 01 0400 01000000"));
    ASSERT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));  // the call and the reader
    platform_test_advance_ms(9999);
    EXPECT_EQ(first.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    platform_test_advance_ms(1);
    EXPECT_EQ(first.get(), KBR_ERR_TIMEOUT);

    uint32_t answer = 0;
    std::future<int> second =
        std::async(std::launch::async, [&] { return call(client, 2, &answer); });
    const std::string next = modem.receive();
    modem.send(echo(request));
    modem.send(echo(next));
    EXPECT_EQ(second.get(), KBR_OK);
    EXPECT_EQ(answer, 2u);
    kbr_client_release(client);
}

TEST_F(Kbr, GarbageBeforeAnAnswerIsPassedOver) {
    kbr_client* client = connect();
    std::future<int> pending = call_async(client, 7);
    const std::string request = modem.receive();
    for (const size_t at : {0, 1, 3, 5}) {  // kind, transaction, id, length
        std::string other = echo(request);
        other[at] ^= 1;
        modem.send(other);
    }
    for (const size_t size : {0, 1, 7, 70000}) modem.send(std::string(size, '\1'));
    modem.send(echo(request));
    EXPECT_EQ(pending.get(), KBR_OK);
    pending = call_async(client, 8);
    modem.send(response_to(modem.receive()));  // which lacks a mandatory field
    EXPECT_EQ(pending.get(), KBR_ERR_FORMAT);
    kbr_client_release(client);
}

TEST_F(Kbr, ModemThatGoesAndAReleaseEndTheCallInProgress) {
    kbr_client* client = connect();
    std::future<int> pending = call_async(client, 7);
    (void)modem.receive();
    modem.hang_up();
    EXPECT_EQ(pending.get(), KBR_ERR_GONE);
    EXPECT_EQ(call(client, 8), KBR_ERR_GONE);
    kbr_client_release(client);

    client = connect();
    pending = call_async(client, 7);
    (void)modem.receive();
    kbr_client_release(client);
    EXPECT_EQ(pending.get(), KBR_ERR_GONE);
}

// Far more than the socket holds; every call moves the clock to its own time-out.
TEST_F(Kbr, ModemThatReadsNothingHoldsNobodyUp) {
    kbr_client* client = connect();
    platform_test_set_clock(platform_test_clock::AUTO);
    for (uint32_t i = 0; i < 1000; ++i) ASSERT_EQ(call(client, i), KBR_ERR_TIMEOUT);
    kbr_client_release(client);
}

TEST_F(Kbr, ServiceThatDoesNotAcceptFailsInTime) {
    platform_test_set_clock(platform_test_clock::AUTO);
    std::vector<kbr_client*> clients(1);  // as many as the service's queue holds, and one more
    int result = 0;
    while ((result = kbr_client_init_instance(&SERVICE, KBR_ANY_INSTANCE, nullptr, nullptr, 4,
                                              &clients.back())) == KBR_OK)
        clients.push_back(nullptr);
    EXPECT_EQ(result, KBR_ERR_TIMEOUT);
    for (kbr_client* client : clients) (void)kbr_client_release(client);
}

TEST_F(Kbr, CallbackMakesCallsAndReleasesItsClient) {
    std::promise<int> outcome;
    kbr_client* client = connect(
        [](kbr_client* own, uint32_t, void* buf, uint32_t len, void* data) {
            uint32_t value = 0;
            int result = kbr_client_message_decode(own, KBR_INDICATION, 2, buf, len, &value, 4);
            if (result == KBR_OK) result = call(own, value);
            kbr_client_release(own);
            static_cast<std::promise<int>*>(data)->set_value(result);
        },
        &outcome);
    modem.answer(echo);
    modem.send(indication(5));
    EXPECT_EQ(outcome.get_future().get(), KBR_OK);
    (void)client;
    // The callback's thread is left to end by itself, and takes the client along.
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (list_dir("/proc/self/fd").size() > descriptors + 1) {  // the modem's connection
        ASSERT_LT(std::chrono::steady_clock::now(), limit);
        std::this_thread::yield();
    }
}

TEST_F(Kbr, StormOfIndicationsLosesNeitherThemNorAnAnswer) {
    constexpr uint32_t STORM = 4000;  // as many as are kept while a call is in progress
    struct storm {
        uint32_t next = 0;
        std::atomic<bool> good{true};
        std::promise<void> over{};
    } seen;
    kbr_client* client = connect(
        [](kbr_client* own, uint32_t, void* buf, uint32_t len, void* data) {
            auto* s = static_cast<storm*>(data);
            uint32_t value = 0;
            (void)kbr_client_message_decode(own, KBR_INDICATION, 2, buf, len, &value, 4);
            if (value != s->next++ || (value % 500 == 0 && call(own, value) != 0)) s->good = false;
            if (value == STORM - 1) s->over.set_value();
        },
        &seen);
    modem.answer(echo);
    std::future<void> caller = std::async(std::launch::async, [&] {
        for (uint32_t i = 0; i < 500; ++i) {
            if (call(client, i) != KBR_OK) seen.good = false;
        }
    });
    for (uint32_t i = 0; i < STORM; ++i) modem.send(indication(i));
    EXPECT_EQ(seen.over.get_future().wait_for(EVENT_LIMIT), std::future_status::ready);
    caller.get();
    EXPECT_TRUE(seen.good);
    kbr_client_release(client);
}

// A callback that does not come back, and a modem that meanwhile sends the longest packets.
TEST_F(Kbr, HostileModemIsBoundedInBytesAsWell) {
    constexpr size_t LONG = 60000;
    constexpr uint32_t FLOOD = 200;
    struct flood {
        std::promise<void> begun{};
        std::promise<void> go_on{};
        std::promise<void> over{};
        size_t bytes = 0;
    } seen;
    kbr_client* client = connect(
        [](kbr_client*, uint32_t, void*, uint32_t len, void* data) {
            auto* s = static_cast<flood*>(data);
            s->bytes += len;
            if (len == 1) s->begun.set_value();
            if (len == 1) s->go_on.get_future().wait();
            if (len == 2) s->over.set_value();
        },
        &seen);
    const auto indication_of = [](size_t len) {
        return hex_bytes("02 0000 0200") + static_cast<char>(len) + static_cast<char>(len >> 8) +
               std::string(len, 'x');
    };
    modem.send(indication_of(1));
    seen.begun.get_future().wait();
    std::future<int> caller = call_async(client, 7);
    const std::string request = modem.receive();
    for (uint32_t i = 0; i < FLOOD; ++i) modem.send(indication_of(LONG));
    modem.send(echo(request));
    EXPECT_EQ(caller.get(), KBR_OK);
    seen.go_on.set_value();
    modem.send(indication_of(2));
    EXPECT_EQ(seen.over.get_future().wait_for(EVENT_LIMIT), std::future_status::ready);
    EXPECT_LE(seen.bytes, (size_t{4} << 20) + 3);
    EXPECT_GT(seen.bytes, size_t{3} << 20);
    kbr_client_release(client);
}

}  // namespace

// The messaging library against a modem that does everything a modem should not.
#include "platform/kbr.h"

#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <future>
#include <sstream>

#include "host/kbr_message.h"
#include "platform_test.h"
#include "support/dialogue.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/owned_text.h"

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
    return response_to(request, request.substr(7) + bytes("02 0400 0000 0000"));
}

std::string indication(uint32_t value) {
    std::string packet = bytes("02 0000 0200 0700 01 0400");
    return packet.append(reinterpret_cast<const char*>(&value), sizeof value);
}

int call(kbr_client* client, uint32_t value, uint32_t* answer = nullptr) {
    number response = {};
    const int result = kbr_client_send_msg_sync(client, 1, &value, sizeof value, &response,
                                                sizeof response, 10000);
    if (answer) *answer = response.value;
    return result;
}

using indication_handler = std::function<void(kbr_client*, void* bytes, uint32_t len)>;

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
    kbr_client* connect(indication_handler handler = {}) {
        static const auto handle = [](kbr_client* own, uint32_t, void* buf, uint32_t len,
                                      void* of) { static_cast<Kbr*>(of)->handler_(own, buf, len); };
        handler_ = std::move(handler);
        kbr_client* client = nullptr;
        EXPECT_EQ(kbr_client_init_instance(&SERVICE, KBR_ANY_INSTANCE, handle, this, 4, &client),
                  0);
        modem.accept();
        return client;
    }
    static std::future<int> call_async(kbr_client* client, uint32_t value) {
        return std::async(std::launch::async, [=] { return call(client, value); });
    }

    kbr_service modem{"test"};
    size_t descriptors = 0;

  private:
    indication_handler handler_;
};

std::string shown(const everything& message) {
    std::ostringstream out;
    out << std::hex << "result " << message.result << "/" << message.error << ", half "
        << message.half;
    if (message.flag) out << ", word " << message.word;
    out << ", bytes " << hex({reinterpret_cast<const char*>(message.bytes), message.bytes_len});
    for (uint32_t i = 0; message.items_valid && i < message.items_len; ++i)
        out << ", item " << message.items[i].kind << " "
            << hex({reinterpret_cast<const char*>(message.items[i].id), message.items[i].id_len});
    return out.str() + "\n";
}

std::string read_and_written(const std::string& text) {
    const std::string in = bytes(text);
    everything message;
    memset(&message, 0xff, sizeof message);
    if (kbr_decode(EVERYTHING_MESSAGE, raw(in), in.size(), &message) != KBR_OK) return "refused\n";
    uint8_t out[100] = {};
    size_t len = 0;
    EXPECT_LE(kbr_message_max_len(EVERYTHING_MESSAGE), sizeof out);
    EXPECT_EQ(kbr_encode(EVERYTHING_MESSAGE, &message, out, &len), KBR_OK);
    const std::string again(out, out + len);
    return shown(message) + (again == in ? "" : "written as " + hex(again) + "\n");
}

TEST(KbrMessage, WhatFitsIsReadAndNothingElse) {
    expect_dialogue("platform/kbr_message", read_and_written);
    everything message = {};
    message.bytes_len = 6;
    uint8_t out[100];
    size_t len = 0;
    EXPECT_EQ(kbr_encode(EVERYTHING_MESSAGE, &message, out, &len), KBR_ERR_FORMAT);
}

TEST_F(Kbr, CallsWithoutAServiceOrAClientAreRefused) {
    kbr_client* client = nullptr;
    const kbr_service_object nameless;
    for (const kbr_service_object* service : {&nameless, static_cast<decltype(&SERVICE)>(nullptr)})
        EXPECT_EQ(kbr_client_init_instance(service, KBR_ANY_INSTANCE, nullptr, nullptr, 4, &client),
                  KBR_ERR_ARGUMENT);
    EXPECT_EQ(kbr_client_init_instance(&SERVICE, 1, nullptr, nullptr, 4, &client), KBR_ERR_GONE);
    EXPECT_EQ(kbr_client_release(nullptr), KBR_ERR_ARGUMENT);
    uint32_t version = 0;
    EXPECT_EQ(kbr_idl_get_idl_version(nullptr, &version), KBR_ERR_ARGUMENT);
    EXPECT_EQ(kbr_idl_get_idl_version(&SERVICE, nullptr), KBR_ERR_ARGUMENT);
    client = connect();
    number answer;
    EXPECT_EQ(kbr_client_send_msg_sync(client, 1, &answer, 3, &answer, sizeof answer, 1),
              KBR_ERR_ARGUMENT);
    EXPECT_EQ(kbr_client_send_msg_sync(client, 1, &answer, 4, &answer, 4, 1), KBR_ERR_ARGUMENT);
    EXPECT_EQ(kbr_client_send_msg_sync(client, 2, &answer, 4, &answer, sizeof answer, 1),
              KBR_ERR_ARGUMENT);
    kbr_client_release(client);
    EXPECT_EQ(call(client, 1), KBR_ERR_GONE);
}

TEST_F(Kbr, TimeOutIsExactAndALateAnswerIsNotTheNextCalls) {
    kbr_client* client = connect();
    std::future<int> first = call_async(client, 1);
    const std::string request = modem.receive();
    EXPECT_EQ(request, bytes("00 0100 0100 0700 01 0400 01000000"));
    ASSERT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));  // the call and the reader
    platform_test_advance_ms(9999);
    ASSERT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count())) << "a millisecond is left";
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
    (void)connect([&](kbr_client* own, void* buf, uint32_t len) {
        uint32_t value = 0;
        int result = kbr_client_message_decode(own, KBR_INDICATION, 2, buf, len, &value, 4);
        if (result == KBR_OK) result = call(own, value);
        kbr_client_release(own);
        outcome.set_value(result);
    });
    modem.answer(echo);
    modem.send(indication(5));
    EXPECT_EQ(outcome.get_future().get(), KBR_OK);
    // The callback's thread is left to end by itself, and takes the client along.
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (list_dir("/proc/self/fd").size() > descriptors + 1 &&  // the modem's connection
           std::chrono::steady_clock::now() < limit)
        std::this_thread::yield();
}

TEST_F(Kbr, ReleaseWaitsForTheCallbackInProgress) {
    std::promise<void> begun;
    std::atomic<bool> left{false};
    kbr_client* client = connect([&](kbr_client* own, void*, uint32_t) {
        begun.set_value();
        EXPECT_EQ(call(own, 1), KBR_ERR_GONE);  // which the release ends
        for (int i = 0; i < 10000; ++i) std::this_thread::yield();
        left = true;
    });
    modem.send(indication(1));
    begun.get_future().wait();
    kbr_client_release(client);
    EXPECT_TRUE(left);
}

TEST_F(Kbr, StormOfIndicationsLosesNeitherThemNorAnAnswer) {
    constexpr uint32_t STORM = 4000;  // as many as are kept while a call is in progress
    uint32_t next = 0;
    std::atomic<int> failures{0};
    std::promise<void> over;
    kbr_client* client = connect([&](kbr_client* own, void* buf, uint32_t len) {
        uint32_t value = 0;
        (void)kbr_client_message_decode(own, KBR_INDICATION, 2, buf, len, &value, 4);
        if (value != next++ || (value % 500 == 0 && call(own, value) != 0)) ++failures;
        if (value == STORM - 1) over.set_value();
    });
    modem.answer(echo);
    std::future<void> caller = std::async(std::launch::async, [&] {
        for (uint32_t i = 0; i < 500; ++i) failures += call(client, i) != KBR_OK;
    });
    for (uint32_t i = 0; i < STORM; ++i) modem.send(indication(i));
    EXPECT_EQ(over.get_future().wait_for(EVENT_LIMIT), std::future_status::ready);
    caller.get();
    EXPECT_EQ(failures, 0);
    kbr_client_release(client);
}

// A callback that does not come back, and a modem that meanwhile sends the longest packets.
TEST_F(Kbr, HostileModemIsBoundedInBytesAsWell) {
    std::promise<void> begun, go_on, over;
    size_t received = 0;
    kbr_client* client = connect([&](kbr_client*, void*, uint32_t len) {
        received += len;
        if (len == 1) begun.set_value();
        if (len == 1) go_on.get_future().wait();
        if (len == 2) over.set_value();
    });
    const auto indication_of = [](size_t len) {
        return bytes("02 0000 0200") + static_cast<char>(len) + static_cast<char>(len >> 8) +
               std::string(len, 'x');
    };
    modem.send(indication_of(1));
    begun.get_future().wait();
    std::future<int> caller = call_async(client, 7);
    const std::string request = modem.receive();
    for (int i = 0; i < 200; ++i) modem.send(indication_of(60000));
    modem.send(echo(request));
    EXPECT_EQ(caller.get(), KBR_OK);
    go_on.set_value();
    modem.send(indication_of(2));
    EXPECT_EQ(over.get_future().wait_for(EVENT_LIMIT), std::future_status::ready);
    EXPECT_LE(received, (size_t{4} << 20) + 3);
    EXPECT_GT(received, size_t{3} << 20);
    kbr_client_release(client);
}

}  // namespace

// The modem of the phone that the test is in, in a thread of the test.
#pragma once

#include <mutex>
#include <string>
#include <thread>

#include "modem/modem.h"

class modem_thread {
  public:
    modem_thread() : loop_("/", [this](const std::string& line) { note(line); }) {
        for (const modem_service_maker make : modem_services()) services_.push_back(make(loop_));
        thread_ = std::thread([this] { loop_.run(); });
    }
    ~modem_thread() {
        loop_.quit();
        thread_.join();
    }

    void command(const std::string& line) {
        loop_.post([this, line] { (void)loop_.execute(line); });
    }
    // All it has printed so far.
    std::string output() {
        const std::lock_guard held(mutex_);
        return output_;
    }

  private:
    void note(const std::string& line) {
        const std::lock_guard held(mutex_);
        output_ += line + "\n";
    }

    std::mutex mutex_;
    std::string output_;
    modem loop_;
    std::vector<std::unique_ptr<modem_service>> services_;
    std::thread thread_;
};

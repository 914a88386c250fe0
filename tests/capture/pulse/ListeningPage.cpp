#include "capture/pulse/ListeningPage.h"

#include <cstring>

namespace velmora::testing {

using namespace std::chrono_literals;

ListeningPage::ListeningPage(std::shared_ptr<TestPage> page) : page_(std::move(page)) {
    reader_ = std::thread([this] { read(); });
}

ListeningPage::~ListeningPage() {
    stopping_ = true;
    reader_.join();
    page_->close();
}

bool ListeningPage::send(const std::string& text) {
    return !page_->sendText(text);
}

void ListeningPage::read() {
    while (!stopping_) {
        auto message = page_->next(50ms);
        if (!message) {
            if (page_->isClosed()) {
                std::lock_guard lock(mutex_);
                closed_ = true;
                changed_.notify_all();
                return;
            }
            continue;
        }
        const auto arrival = Clock::now();
        if (message->binary) {
            std::vector<std::byte> bytes(message->data.size());
            std::memcpy(bytes.data(), message->data.data(), bytes.size());
            frames_.record(bytes);
            continue;
        }
        {
            std::lock_guard lock(mutex_);
            messages_.push_back({arrival, nlohmann::json::parse(message->data, nullptr, false)});
        }
        changed_.notify_all();
    }
}

std::vector<ListeningPage::Message> ListeningPage::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

std::optional<ListeningPage::Message> ListeningPage::waitForType(const std::string& type,
                                                                 std::chrono::milliseconds timeout,
                                                                 std::size_t from) const {
    std::unique_lock lock(mutex_);
    std::optional<Message> found;
    changed_.wait_for(lock, timeout, [&] {
        for (std::size_t index = from; index < messages_.size(); ++index) {
            const auto& json = messages_[index].json;
            if (json.is_object() && json.value("type", "") == type) {
                found = messages_[index];
                return true;
            }
        }
        return closed_;
    });
    return found;
}

std::size_t ListeningPage::countOfType(const std::string& type) const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& message : messages_) {
        count += message.json.is_object() && message.json.value("type", "") == type ? 1 : 0;
    }
    return count;
}

bool ListeningPage::isClosed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

}  // namespace velmora::testing

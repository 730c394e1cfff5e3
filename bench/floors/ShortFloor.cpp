#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "Child.h"
#include "Subject.h"
#include "floors/Link.h"

namespace bench {

namespace {

/** The warming-up of a scenario comes on threads of its own. */
constexpr std::uint32_t kMostCallers = 72;

/** Serves one caller on the thread that receives his requests. */
void serveCaller(Link& link, std::atomic<std::uint32_t>& served) {
    FloorMessage head;
    std::vector<unsigned char> body;
    while (link.receive(head, body)) {
        if (head.kind == FloorMessage::kOneWay) {
            served.fetch_add(1);
            continue;
        }
        head.number = head.kind == FloorMessage::kCount ? served.load() : head.number + 1;
        head.kind = FloorMessage::kAnswer;
        link.send(head, body.data());
    }
}

/** Each thread has rings of its own, and reads its answers itself. */
class ShortClient : public Client {
public:
    explicit ShortClient(std::string const& folder) : folder_(folder) {}

    void enterThread() override {
        index_ = nextIndex_.fetch_add(1) % kMostCallers;
        links_[index_] = openSleepingRing(folder_, index_);
    }
    bool call() override { return exchange(FloorMessage::kRequest, 0).number == 8; }
    bool callBody(std::size_t bytes) override {
        exchange(FloorMessage::kRequest, bytes);
        return answer_.size() == bytes;
    }
    bool sendOneWay() override {
        FloorMessage message;
        message.kind = FloorMessage::kOneWay;
        links_[index_]->send(message, nullptr);
        return true;
    }
    std::uint32_t servedOneWays() override { return exchange(FloorMessage::kCount, 0).number; }

private:
    FloorMessage exchange(FloorMessage::Kind kind, std::size_t bodySize) {
        FloorMessage message = FloorMessage::of(kind, 0, bodySize);
        if (body_.size() < bodySize)
            body_.resize(bodySize);
        links_[index_]->send(message, body_.data());
        links_[index_]->receive(message, answer_);
        return message;
    }

    static thread_local std::uint32_t index_;
    static thread_local std::vector<unsigned char> body_;
    static thread_local std::vector<unsigned char> answer_;

    std::string const folder_;
    std::atomic<std::uint32_t> nextIndex_{0};
    std::array<std::unique_ptr<Link>, kMostCallers> links_;  // each used by its thread
};

thread_local std::uint32_t ShortClient::index_ = 0;
thread_local std::vector<unsigned char> ShortClient::body_;
thread_local std::vector<unsigned char> ShortClient::answer_;

class ShortFloor : public Subject {
public:
    void serve(std::string const& folder) override {
        // Both outlive this function: the threads end with the process.
        static std::atomic<std::uint32_t> served{0};
        for (std::uint32_t i = 0; i < kMostCallers; ++i)
            std::thread([link = makeSleepingRing(folder, i)] {
                serveCaller(*link, served);
            }).detach();
        announceAndWait();
    }
    std::unique_ptr<Client> connect(std::string const& folder) override {
        return std::make_unique<ShortClient>(folder);
    }
};

}  // namespace

std::unique_ptr<Subject> makeShortFloor() {
    return std::make_unique<ShortFloor>();
}

}  // namespace bench

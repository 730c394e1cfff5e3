// The object that the processes of these tests serve, and its client.
#pragma once

#include <algorithm>
#include <string>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"
#include "transport.h"

namespace station {

constexpr unsigned int kClass = 0x57A710;
enum Method : unsigned int {
    kRotate = 1,  // (unsigned, string) -> string
    kAdd = 2,     // (unsigned) one-way
    kTotal = 3,   // () -> unsigned
    kRefuse = 4,  // (unsigned code)
    kFlip = 6,    // (string) -> string
    kCount = 9    // (sequence) -> unsigned
};

/** `text` turned left by `count` places: differs from both arguments, and allocates nothing for a
 * short text. */
inline std::string rotated(unsigned int count, std::string text) {
    if (!text.empty())
        std::rotate(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count % text.size()),
                    text.end());
    return text;
}
inline std::string flipped(std::string text) {
    for (char& character : text)
        character = static_cast<char>(character ^ 0x5A);
    return text;
}
inline std::string body(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(i * 7 + i / 256);
    return text;
}

class Client : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;
    explicit Client(std::string const& name, NamespaceId ns = NSID_UNIT)
        : Client(TipprmiOID(name, ns)) {}

    TipprmiResult<std::string> rotate(unsigned int count, std::string const& text) const {
        return tipprmiCall<std::string>(*this, kClass, kRotate, count, text);
    }
    /** Whether a call came back with the right answer. */
    bool answers(unsigned int count = 3) const {
        std::string const text("seven7");
        return rotate(count, text).value() == rotated(count, text);
    }
    TipprmiResult<void> add(unsigned int number) const {
        return tipprmiSend(*this, kClass, kAdd, number);
    }
};

class Server : public TipprmiObjectSkeleton {
public:
    explicit Server(std::string const& name, NamespaceId ns = NSID_UNIT)
        : TipprmiObjectSkeleton(TipprmiOID(name, ns)) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(cc, mc, in, out, method); };
        return mc == kRotate   ? by(&Server::rotate)
               : mc == kAdd    ? by(&Server::add)
               : mc == kTotal  ? by(&Server::total)
               : mc == kRefuse ? by(&Server::refuse)
               : mc == kFlip   ? by(&Server::flip)
               : mc == kCount  ? by(&Server::count)
                               : TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }

    unsigned int total() const { return total_; }

private:
    std::string rotate(unsigned int count, std::string const& text) { return rotated(count, text); }
    void add(unsigned int number) { total_ += number; }
    TipprmiResult<void> refuse(unsigned int code) { return TipprmiFailure(code); }
    std::string flip(std::string const& text) { return flipped(text); }
    unsigned int count(TipprmiSequence<unsigned int> const& numbers) { return numbers.getLength(); }

    unsigned int total_ = 0;  // guarded by the run permission
};

}  // namespace station

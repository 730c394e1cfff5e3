#include "Field.h"

#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "GoodObject.h"

namespace hostile {
namespace {

constexpr Transport::GroupId kGroup = 0xF0;
constexpr char kActor[] = "hostile";

}  // namespace

// ---- Entry

Entry::Entry() : folder_(Transport::EntryFolder::open(std::getenv("TRANSPORT_DIR"))) {
    if (!folder_)
        throw std::runtime_error("no folder is to be had");
    auto name = folder_->file()->takeName(0, [](auto) { return true; });
    id_ = TerminationId(name.nameId(), 1, kGroup);
    file_ = Transport::EntryFolder::fileName(id_, kActor, "");
    Transport::HiddenSocket hidden = folder_->bindHidden(id_);
    if (name.nameId() == 0 || !hidden.valid() || !hidden.show(file_))
        throw std::runtime_error("no entry is to be had");
    name.keep();
    listening_ = hidden.release();
    folder_->announce();
}

Entry::~Entry() {
    folder_->remove(file_);
    folder_->file()->unlockName(id_.nameId());
    folder_->announce();
}

// ---- Field

std::string Field::noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random_());
    return bytes;
}

std::vector<Victim> Field::victims() const {
    std::vector<Victim> all;
    std::error_code ignored;
    for (auto const& found : std::filesystem::directory_iterator(".", ignored)) {
        std::string const file = found.path().filename();
        std::size_t const actor = file.find(std::string(".") + kGood);
        if (actor == std::string::npos || file[0] == '.' || !found.is_socket(ignored))
            continue;
        std::size_t const end = file.find('.', actor + 1);
        all.push_back({TerminationId(static_cast<unsigned int>(
                           std::strtoul(file.substr(0, 8).c_str(), nullptr, 16))),
                       file, file.substr(actor + 1, end - actor - 1)});
    }
    return all;
}

Victim Field::victim() {
    std::vector<Victim> all = victims();
    if (all.empty())
        throw std::runtime_error("there is no victim");
    return all[dice(static_cast<unsigned int>(all.size()))];
}

Entry& Field::entry() {
    if (!entry_)
        entry_ = std::make_unique<Entry>();
    return *entry_;
}

HandMadeLink Field::connect(Victim const& victim) {
    HandMadeLink link;
    link.to = victim.id;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    victim.file.copy(address.sun_path, sizeof address.sun_path - 1);
    link.socket = Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    link.ended = ::connect(link.socket.get(), reinterpret_cast<sockaddr const*>(&address),
                           sizeof address) != 0;
    return link;
}

HandMadeLink Field::open(Victim const& victim, std::uint32_t capacity) {
    constexpr int kPatience = 500;
    HandMadeLink link = connect(victim);
    link.from = entry().id();
    if (!link.ended)
        link.ended = !link.open(capacity, kPatience);
    return link;
}

void Field::keep(HandMadeLink link, std::size_t most) {
    kept_.push_back(std::move(link));
    while (kept_.size() > most)
        kept_.pop_front();
}

std::uint32_t Field::objectOf(HandMadeLink& link, Victim const& victim) {
    link.put(message(number(), search, request, text(victim.object) + big(1)));
    link.ring();
    auto const answer = take(link, 500);
    std::uint32_t object = 0;
    for (std::size_t i = 16; answer && i < 20 && i < answer->size(); ++i)
        object = object << 8 | static_cast<unsigned char>((*answer)[i]);
    return object;
}

// ---- Messages

std::string big(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
    return bytes;
}

std::string text(std::string const& value) {
    return big(static_cast<std::uint32_t>(value.size())) + value;
}

std::string message(std::uint32_t transaction, std::uint32_t type, std::uint32_t kind,
                    std::string const& data) {
    return big(transaction) + big(type) + big(kind) + text(data);
}

std::string call(std::uint32_t transaction, std::uint32_t kind, std::uint32_t object,
                 std::uint32_t method, std::string const& arguments) {
    return message(transaction, payload, kind,
                   big(object) + big(kind == request) + big(kClass) + big(method) + arguments);
}

std::optional<std::string> take(HandMadeLink& link, int milliseconds) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::uint32_t const head = link.own.page().head.load();
    std::uint32_t const tag = link.own.page().asleep.load();
    link.own.page().asleep.store(tag + 1);
    while (link.peer.valid() && link.peer.page().tail.load() == head) {
        if (std::chrono::steady_clock::now() > end)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!link.peer.valid())
        return std::nullopt;
    auto const byte = [&](std::uint32_t at) {
        return link.peer.ring.mapping.data()[at % link.peer.ring.capacity];
    };
    FrameHead frame;
    for (std::size_t i = 0; i < sizeof frame; ++i)
        reinterpret_cast<unsigned char*>(&frame)[i] = byte(head + static_cast<std::uint32_t>(i));
    std::string message;
    for (std::uint32_t i = 0; i < frame.length && i < link.peer.ring.capacity; ++i)
        message += static_cast<char>(byte(head + 8 + i));
    link.own.page().head.store(head + Transport::frameBytes(frame.length));
    return message;
}

}  // namespace hostile

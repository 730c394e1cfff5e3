// A process of the soak. Arguments: ACTOR LIFE SEED ACTORS OBSERVERS JOURNAL. Acts as lines on
// standard input tell it, and answers each with the line itself when it is done:
//
//   go N      act, until told otherwise
//   rest N    stop acting
//   tell N    write down how many one-way calls were sent and received
//   clear N   destroy all objects but "home"
//   quit      end
//
// With the argument "beacon" alone it is nothing but a broker, which answers "start TERMINATION".

#include "ActorSide.h"
#include "Player.h"

namespace {

using namespace soak;
using testsupport::answer;

constexpr unsigned int kPlayers = 2;

class Process {
public:
    explicit Process(Settings const& settings) : actor_(settings), brokers_(actor_.journal) {
        actor_.journal.write("begin");
        TreflectORB& orb = *TreflectORB::getInstance(NSID_UNIT);
        orb.registerOrbCreation(&brokers_, false);
        orb.registerOrbDeletion(&brokers_);
        actor_.journal.write("start", orb.termId().value(), orb.orbId().value());
        TreflectHandlerState const inside(true);
        std::string const home = homeOf(settings.actor);
        home_ = std::make_unique<Object>(
            home, home, settings.life, soakMeta, nullptr,
            [this](char const*, std::string const& from) { ++actor_.received[from]; });
        if (settings.role() != Role::publishes)
            registerAnchors();
        actor_.journal.write("up");
        for (unsigned int i = 0; i < kPlayers; ++i)
            players_.push_back(std::make_unique<Player>(actor_, i));
    }
    ~Process() {
        actor_.turn.end();
        for (std::thread& thread : threads_)
            thread.join();
        TreflectORB::getInstance(NSID_UNIT)->unregisterOrbNotifications(&brokers_);
        retire(anchors_);
        TreflectHandlerState const inside(true);
        home_.reset();
        actor_.known = KnownObjects();
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    void run() {
        for (auto const& player : players_)
            threads_.emplace_back([&player] { player->run(); });
        answer("up");
        for (std::string line; std::getline(std::cin, line) && line != "quit";) {
            obey(line.substr(0, line.find(' ')));
            answer(line);
        }
    }

private:
    /** First of all, while others do the same: they subscribe here while we subscribe there. */
    void registerAnchors() {
        for (unsigned int i = 0; i < kClasses; ++i)
            for (Kind const kind : {Kind::creations, Kind::deletions})
                if (hasAnchor(i, kind))
                    anchors_.push_back(std::make_unique<Watcher>(
                        actor_, i, kind, kind == Kind::creations, Watcher::Habit::plain));
    }
    void obey(std::string const& order) {
        if (order == "go")
            actor_.turn.go();
        if (order == "rest")
            actor_.turn.rest();
        TreflectHandlerState const inside(true);
        if (order == "clear")
            for (auto const& player : players_)
                player->clear();
        if (order != "tell")
            return;
        for (auto const& [broker, count] : actor_.sent)
            actor_.journal.write("sent", broker, count);
        for (auto const& [from, count] : actor_.received)
            actor_.journal.write("received", from, count);
    }

    Actor actor_;
    BrokerWatcher brokers_;
    std::unique_ptr<Object> home_;
    Watchers anchors_;
    std::vector<std::unique_ptr<Player>> players_;
    std::vector<std::thread> threads_;
};

unsigned int number(char const* text) {
    return static_cast<unsigned int>(std::strtoul(text, nullptr, 10));
}

}  // namespace

int main(int count, char** arguments) {
    if (count == 2) {  // the beacon
        answer("start ", TreflectORB::getInstance(NSID_UNIT)->termId().value());
        std::cin.ignore(std::numeric_limits<std::streamsize>::max());
        return EXIT_SUCCESS;
    }
    if (count != 7)
        return EXIT_FAILURE;
    Process({number(arguments[1]), number(arguments[2]), number(arguments[3]), number(arguments[4]),
             number(arguments[5]), arguments[6]})
        .run();
    return EXIT_SUCCESS;
}

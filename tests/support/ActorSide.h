// The other side of ActorProgram: what the child programs share.
#pragma once

#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>

namespace testsupport {

/** Writes one line of words in one go, since several threads answer. */
template <class... Words>
void answer(Words const&... words) {
    std::ostringstream line;
    (line << ... << words) << "\n";
    std::fputs(line.str().c_str(), stdout);
    std::fflush(stdout);
}

/** Has each line obeyed, as `obey(verb, words)` with the words behind the verb, until the input
 * ends or that answers false. */
template <class Obey>
void obeyLines(Obey const& obey) {
    answer("ready");
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (!obey(verb, words))
            return;
    }
}

/** What a command returns that ends the program's input. */
struct End {};

/** What a verb has the program do with the words behind it. */
class Command {
public:
    Command() = default;
    /** The words are the arguments of `act`; those that are missing are empty, or 0. What it
     * returns is answered: a bool as "done 1" or "done 0", all else as it is. */
    template <class Act>
    Command(Act act) : run_(reading(std::function(act))) {}

    bool operator()(std::istream& words) const { return run_(words); }

private:
    template <class Result, class... Words>
    static std::function<bool(std::istream&)> reading(std::function<Result(Words...)> const& act) {
        return [act](std::istream& line) {
            auto const run = [&](auto&... words) {
                ((line >> words), ...);
                if constexpr (std::is_same_v<Result, bool>)
                    answer("done ", act(words...));
                else if constexpr (std::is_void_v<Result> || std::is_same_v<Result, End>)
                    act(words...);
                else
                    answer(act(words...));
                return !std::is_same_v<Result, End>;
            };
            std::tuple<std::decay_t<Words>...> words;
            return std::apply(run, words);
        };
    }

    std::function<bool(std::istream&)> run_;
};

/** By their verbs. */
using Commands = std::map<std::string, Command>;

/** Has each line obeyed, but for empty ones, by way of `around`, which calls what it is given. */
template <class Around>
void obeyLines(Commands const& commands, Around const& around) {
    obeyLines([&](std::string const& verb, std::istringstream& words) {
        return verb.empty() || around([&] { return commands.at(verb)(words); });
    });
}
inline void obeyLines(Commands const& commands) {
    obeyLines(commands, [](auto const& act) { return act(); });
}

}  // namespace testsupport

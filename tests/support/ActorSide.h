// The other side of ActorProgram: what the child programs share.
#pragma once

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

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

}  // namespace testsupport

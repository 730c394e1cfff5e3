#pragma once

#include <boost/noncopyable.hpp>
#include <memory>
#include <string>
#include <vector>

#include "Child.h"
#include "tests/support/Namespaces.h"

namespace bench {

class Network : public testsupport::Namespaces {
public:
    using Namespaces::Namespaces;
    /** From now on every machine drops so many percent of the datagrams that reach it. False when
     * that cannot be had, for want of the program nft. */
    bool lose(int percent) const;
};

/** One of them: its rendezvous folder, its link, and programs that run on it. */
class Machine : boost::noncopyable {
public:
    Machine(Network const&, int slot) : slot_(slot) {}
    ~Machine();

    /** A copy of this program that does `words` there: see `enterMachine`. */
    std::unique_ptr<Child> run(std::vector<std::string> const& words) const;
    void startLink();
    /** Kills it, if there is one. */
    void endLink() { link_.reset(); }
    pid_t linkPid() const { return link_ ? link_->pid() : -1; }
    /** Waits until the link has logged the text so many times; false when it takes too long. */
    bool awaitLog(std::string const& text, int times = 1) const;

private:
    std::string log() const { return folder_.path() + ".log"; }

    int const slot_;
    TemporaryFolder const folder_;
    std::unique_ptr<Child> link_;
};

/** What a copy of this program is to do. The first words are "--in", a namespace, a folder and a
 * slot, which it makes its own; the others are what it does there, and are returned. Words that
 * begin with "exec" and a log file never return: they are a program that takes its place. */
std::vector<std::string> enterMachine(std::vector<std::string> const& words);

}  // namespace bench

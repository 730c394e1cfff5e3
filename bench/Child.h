#pragma once

#include <sys/types.h>

#include <boost/noncopyable.hpp>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

/** A folder of its own for one measurement. */
class TemporaryFolder : boost::noncopyable {
public:
    TemporaryFolder();
    ~TemporaryFolder();

    std::string const& path() const { return path_; }

private:
    std::string path_;
};

/** A copy of this program with other arguments; dies with its parent. */
class Child : boost::noncopyable {
public:
    /** `processor`: the only one it may run on; below 0 any. */
    explicit Child(std::vector<std::string> const& arguments, int processor = -1);
    ~Child();

    pid_t pid() const { return pid_; }
    void writeLine(std::string const& line);
    /** False at the end of its output. */
    bool readLine(std::string& line);
    /** Ends the child's input, which asks it to end. */
    void closeInput();
    /** True when it ended with 0. */
    bool waitForEnd();

private:
    pid_t pid_ = -1;
    int input_ = -1;
    std::FILE* output_ = nullptr;
    bool waited_ = false;
};

/** In a child: tells the parent that calls may come, and waits until it closes standard input. */
void announceAndWait();

}  // namespace bench

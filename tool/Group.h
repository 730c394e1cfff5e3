// Being one of the group of processes that are looked at.
#pragma once

/**
 * Joins the group for a scope. While it lasts others may wait for this process: whoever looks for
 * an object asks it, too, and calls that are observed wait for its observers. So none of its
 * threads may block with the run permission, and it must not be stopped: Ctrl-Z is held back. A
 * call that nobody answers never ends in an abort, neither of this process nor of the other.
 *
 * A resource; one at a time, of the main thread, which has no run permission.
 */
class Group {
public:
    /** Throws a Failure when this process cannot be in it, with the reason. */
    explicit Group(bool verbose);
    /** Leaves it: all calls that are waited for fail at once. Ctrl-Z is back, and counts if it has
     * been pressed meanwhile. */
    ~Group();
    Group(Group const&) = delete;
    Group& operator=(Group const&) = delete;
};

/**
 * Has the library work with values without any group, for a scope: its messages, in which values
 * are read, ask for a broker, which finds no folder then. To the end of the process no group can be
 * joined.
 */
class NoGroup {
public:
    NoGroup();
    ~NoGroup();
    NoGroup(NoGroup const&) = delete;
    NoGroup& operator=(NoGroup const&) = delete;
};

// A descriptor whose closing waits, and others that have such a one in them.
#pragma once

#include <thread>

#include "Field.h"
#include "LingeringConnection.h"

namespace hostile {

/** A socket with something unread, which nobody will read as long as there are no more than a few
 * later ones; within so many others, which hold it when they are closed. */
class LingeringFile {
public:
    explicit LingeringFile(unsigned int depth) {
        static std::deque<Descriptor> others;
        require(connection_.works(), "no connection is to be had");
        others.push_back(connection_.takeOther());
        if (others.size() > 20)
            others.pop_front();
        outermost_ = Descriptor(::fcntl(connection_.get(), F_DUPFD_CLOEXEC, 0));
        testsupport::SocketPair around;
        for (; depth > 0 && testsupport::sendWith(around.near.get(), "x", {outermost_.get()});
             --depth) {
            outermost_ = std::move(around.far);
            around = testsupport::SocketPair();
        }
    }
    /** Ours may be the last one. */
    ~LingeringFile() {
        std::thread([last = connection_.release(), outermost = outermost_.release()] {
            ::close(outermost);
            ::close(last);
        }).detach();
    }
    LingeringFile(LingeringFile const&) = delete;
    LingeringFile& operator=(LingeringFile const&) = delete;

    int get() const { return outermost_.get(); }

private:
    testsupport::LingeringConnection connection_;
    Descriptor outermost_;
};

}  // namespace hostile

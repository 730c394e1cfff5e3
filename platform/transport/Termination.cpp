#include "transport/Termination.h"

#include "platform/transport/local/Switchboard.h"

namespace Transport {

int Termination::issue(AddressedMessage& message) const {
    message.destination(id_);
    return Switchboard::instance().issue(message, id_);
}

int Termination::issueAnswer(AddressedMessage& message) const {
    message.destination(id_);
    return Switchboard::instance().issue(message, id_, Room::ForAnswers);
}

int Termination::issueError(AddressedMessage const& message) const {
    return Switchboard::instance().giveBack(message, id_);
}

}  // namespace Transport

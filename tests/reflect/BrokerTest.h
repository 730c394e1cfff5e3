// What tests with a broker of their own process share.
#pragma once

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RendezvousFolder.h"
#include "handler_threads.h"
#include "reflect.h"

/** One folder for the whole program, since a process has one transport. */
inline testsupport::RendezvousFolder& rendezvousFolder() {
    static auto& folder = *new testsupport::RendezvousFolder;
    return folder;
}

/** Captures the log, and deletes the brokers of the test at its end. */
class BrokerTest : public testing::Test {
protected:
    BrokerTest() { rendezvousFolder(); }
    ~BrokerTest() override { TreflectORB::prepareForDeletion(); }

    TreflectORB& orb(NamespaceId ns = NSID_UNIT) { return *TreflectORB::getInstance(ns); }
    Transport::GroupId group(NamespaceId ns = NSID_UNIT) { return orb(ns).termId().groupId(); }

    testsupport::LogCapture log_;
};

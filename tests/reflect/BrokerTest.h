// What tests with a broker of their own process share.
#pragma once

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "handler_threads.h"
#include "reflect.h"

/** Captures the log, and deletes the brokers of the test at its end. Its program is linked with
 * tests/support/BrokerFolder.cpp. */
class BrokerTest : public testing::Test {
protected:
    ~BrokerTest() override { TreflectORB::prepareForDeletion(); }

    TreflectORB& orb(NamespaceId ns = NSID_UNIT) { return *TreflectORB::getInstance(ns); }
    Transport::GroupId group(NamespaceId ns = NSID_UNIT) { return orb(ns).termId().groupId(); }

    testsupport::LogCapture log_;
};

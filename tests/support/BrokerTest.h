// What tests with a broker of their own process share, with the headers that nearly all of them
// need.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "Permitted.h"
#include "Waiting.h"
#include "reflect.h"

/** Captures the log, and deletes the brokers of the test at its end. Its program is linked with
 * tests/support/BrokerFolder.cpp. */
class BrokerTest : public testing::Test {
protected:
    ~BrokerTest() override { TreflectORB::prepareForDeletion(); }

    TreflectORB& orb(NamespaceId ns = NSID_UNIT) { return *TreflectORB::getInstance(ns); }
    Transport::TerminationId broker() { return orb().termId(); }
    Transport::GroupId group(NamespaceId ns = NSID_UNIT) { return orb(ns).termId().groupId(); }

    /** Exactly one line of this level contains the text. */
    __attribute__((format(printf, 3, 4))) void expectLine(int level, char const* format, ...) {
        char text[512];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        EXPECT_EQ(log_.count(level, text), 1u) << text;
    }

    testsupport::LogCapture log_;
};

/** Holds the run permission from the beginning of a test to its end. */
class PermittedTest : public BrokerTest {
protected:
    TreflectHandlerState const handlerState_{true};
};

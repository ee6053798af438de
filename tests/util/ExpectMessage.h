#pragma once
// The plug-in's internal errors: an ML::Exception of source PLUGIN and code INTERNAL whose text
// ends in ": " and the message; and any ML::Exception whose text holds a part.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ML/Exception.h"

inline void expectMessage(const std::function<void()>& call, const std::string& message) {
    try {
        call();
        ADD_FAILURE() << "no exception, expected " << message;
    } catch (const ML::Exception& e) {
        const std::string what = e.what();
        EXPECT_EQ(e.source(), ML::Exception::PLUGIN);
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        ASSERT_GE(what.size(), message.size() + 2);
        EXPECT_EQ(what.substr(what.size() - message.size() - 2), ": " + message) << what;
    }
}

inline void expectErrorWith(const std::function<void()>& call, const std::string& part) {
    try {
        call();
        ADD_FAILURE() << "no exception, expected " << part;
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find(part), std::string::npos) << e.what();
    }
}

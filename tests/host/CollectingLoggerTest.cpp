#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "Host/CollectingLogger.h"

using QHost::CollectingLogger;

TEST(CollectingLogger, AnswersItsLevelAndKeepsEveryLineInOrder) {
    CollectingLogger logger(1);
    EXPECT_EQ(logger.getLogLevel(), 1);
    logger.setLogLevel(3);
    EXPECT_EQ(logger.getLogLevel(), 3);

    logger.log(ML::makeString("[Quillon] [E] first"));
    logger.log(nullptr);
    logger.log(ML::makeString(""));
    logger.log(ML::makeString("[Quillon] [V] second"));
    EXPECT_EQ(logger.lines(), (std::vector<std::string>{"[Quillon] [E] first", "", "[Quillon] [V] second"}));
    EXPECT_TRUE(logger.contains("second"));
    EXPECT_FALSE(logger.contains("third"));
    EXPECT_EQ(logger.linesWith("[E]"), (std::vector<std::string>{"[Quillon] [E] first"}));

    logger.clear();
    EXPECT_EQ(logger.lineCount(), 0u);
}

TEST(CollectingLogger, EchoesLinesToAStream) {
    std::ostringstream echo;
    CollectingLogger logger(2, &echo);
    logger.log(ML::makeString("one"));
    logger.setEcho(nullptr);
    logger.log(ML::makeString("two"));
    EXPECT_EQ(echo.str(), "one\n");
    EXPECT_EQ(logger.lineCount(), 2u);
}

TEST(CollectingLogger, CollectsFromSeveralThreads) {
    std::ostringstream echo;
    CollectingLogger logger(3, &echo);
    std::vector<std::thread> pool;
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([&logger, t] {
            for (int i = 0; i < 250; ++i) logger.log(ML::makeString("t" + std::to_string(t)));
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(logger.lineCount(), 1000u);
    EXPECT_EQ(logger.linesWith("t3").size(), 250u);
}

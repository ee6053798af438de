#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "Host/CollectingLogger.h"

using QHost::CollectingLogger;

TEST(CollectingLogger, KeepsEveryLineInOrderAndEchoesThem) {
    std::ostringstream echo;
    CollectingLogger logger(1, &echo);
    logger.log(ML::makeString("[Quillon] [E] first"));
    logger.log(nullptr);
    logger.setEcho(nullptr);
    logger.log(ML::makeString(""));
    logger.log(ML::makeString("[Quillon] [V] second"));
    EXPECT_EQ(echo.str(), "[Quillon] [E] first\n");
    EXPECT_EQ(logger.lines(), (std::vector<std::string>{"[Quillon] [E] first", "", "[Quillon] [V] second"}));
    EXPECT_EQ(logger.linesWith("[E]"), (std::vector<std::string>{"[Quillon] [E] first"}));
    EXPECT_FALSE(logger.contains("third"));
    logger.clear();
    EXPECT_EQ(logger.lineCount(), 0u);
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

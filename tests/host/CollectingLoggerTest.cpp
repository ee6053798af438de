#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "Host/CollectingLogger.h"

TEST(CollectingLogger, CollectsAndEchoesEveryLineFromSeveralThreads) {
    std::ostringstream echo;
    QHost::CollectingLogger logger(3, &echo);
    std::vector<std::thread> pool;
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([&logger, t] {
            for (int i = 0; i < 250; ++i) logger.log(ML::makeString("t" + std::to_string(t)));
        });
    for (auto& t : pool) t.join();
    logger.log(nullptr);  // ignored
    logger.setEcho(nullptr);
    logger.log(ML::makeString("last"));
    EXPECT_EQ(logger.lineCount(), 1001u);
    EXPECT_EQ(logger.linesWith("t3").size(), 250u);
    EXPECT_EQ(logger.lines().back(), "last");
    EXPECT_EQ(echo.str().size(), 1000u * 3);  // "tN\n" for each line before the echo stopped
    logger.clear();
    EXPECT_EQ(logger.lineCount(), 0u);
}

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

#include "Host/CollectingLogger.h"

TEST(CollectingLogger, CollectsAndEchoesEveryLineFromSeveralThreads) {
    std::ostringstream echo;
    QHost::CollectingLogger logger(3, &echo);
    std::vector<std::thread> pool;
    std::atomic<int> ready{0};
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([&, t] {
            for (++ready; ready < 4;) std::this_thread::yield();
            for (int i = 0; i < 2500; ++i) logger.log(ML::makeString("t" + std::to_string(t)));
        });
    for (auto& t : pool) t.join();
    logger.log(nullptr);  // ignored
    logger.setEcho(nullptr);
    logger.log(ML::makeString("last"));
    EXPECT_EQ(logger.lineCount(), 10001u);
    EXPECT_EQ(logger.linesWith("t3").size(), 2500u);
    EXPECT_EQ(logger.lines().back(), "last");
    EXPECT_EQ(echo.str().size(), 10000u * 3);  // "tN\n" for each line before the echo stopped
    logger.clear();
    EXPECT_EQ(logger.lineCount(), 0u);
}

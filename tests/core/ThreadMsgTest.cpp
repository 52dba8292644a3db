// Pipe messages arrive whole and in order, however the bytes come.
#include "core/ThreadMsg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "core/TestPipe.h"

namespace {

TEST(ThreadMsg, ArePutTogetherFromParts) {
    CTestPipe pipe;
    const PipeMsg msgs[] = {{MSG_TIMER, 4, ~0U}, {MSG_QUEUE_ARRIVED, 5000, 3}, {1001, 0, 0}};
    std::uint8_t byMsgs[sizeof(msgs)];
    std::memcpy(byMsgs, msgs, sizeof(msgs));
    ASSERT_EQ(write(pipe.WriteEnd(), byMsgs, 13), 13);
    EXPECT_THAT(pipe.Drain(), testing::ElementsAre(msgs[0]));
    ASSERT_EQ(write(pipe.WriteEnd(), byMsgs + 13, 23), 23);
    EXPECT_THAT(pipe.Drain(), testing::ElementsAre(msgs[1], msgs[2]));
}

}  // namespace

// A guard closes what its variable holds in the end, unless it was dismissed, and lets nothing
// escape.
#include "support/ScopeGuard.h"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(ScopeGuard, ClosesWhatTheVariableHoldsAtTheEnd) {
    std::vector<int> listClosed;
    const auto close = [&listClosed](int nDescriptor) {
        listClosed.push_back(nDescriptor);
        return -1;  // ignored
    };
    std::vector<int> listOpen{1, 2, 3};
    {
        const pcxx::ScopeGuardImpl1 guardFirst(close, listOpen[0]);
        const pcxx::ScopeGuardImpl1 guardSecond(close, listOpen[1]);
        pcxx::ScopeGuardImpl1 guardDismissed(close, listOpen[2]);
        listOpen[0] = 10;
        guardDismissed.Dismiss();
        EXPECT_TRUE(listClosed.empty());
    }
    EXPECT_EQ(listClosed, (std::vector<int>{2, 10}));
}

TEST(ScopeGuard, DropsWhatTheCloserThrows) {
    bool bCalled = false;
    const auto close = [&bCalled](int /*nDescriptor*/) {
        bCalled = true;
        throw std::runtime_error("closing");
    };
    EXPECT_NO_THROW({
        int nDescriptor = 1;
        const pcxx::ScopeGuardImpl1 guard(close, nDescriptor);
    });
    EXPECT_TRUE(bCalled);
}

}  // namespace

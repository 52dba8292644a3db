#include "link/UploadThread.h"

#include "core/MsgQueue.h"

namespace {

constexpr std::int32_t kSlotsToSpare =
    100;  // kept free of records for the messages that matter more

}  // namespace

bool CUploadThread::WantsRecord(std::int32_t nIndex, std::int32_t nType) const {
    return m_nState == UPLOAD_STATE_READY &&
           m_byRealTimeMask[nIndex * kTypesPerClient + nType] == 1 &&
           g_MsgQueue.GetSmallFree() > kSlotsToSpare;
}

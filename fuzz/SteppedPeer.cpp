#include "fuzz/SteppedPeer.h"

#include <utility>

#include "core/MsgQueue.h"
#include "core/ThreadMsg.h"

CSteppedPeer::CSteppedPeer(CInputBytes input)
    : m_Input(input), m_byFlags(m_Input.Byte()), m_System([this] { Step(); }) {
}

void CSteppedPeer::PlanConnect(std::uint8_t byPlan) {
    constexpr std::uint8_t kPlans = 5;
    m_System.PlanConnect(static_cast<EConnect>(byPlan % kPlans));
}

void CSteppedPeer::Step() {
    if (StepAside()) {
        return;
    }
    if (!m_Input.BeginStep()) {
        StopThread();
        return;
    }
    const std::uint8_t byStep = m_Input.Byte();
    byStep % 2 == 0 ? SendSomething(byStep / 2) : LetSomethingHappen(byStep / 2);
}

bool CSteppedPeer::StepAside() {
    if (m_strKept.empty() || m_System.Peers().empty()) {
        return false;
    }
    Send(std::exchange(m_strKept, {}));
    return true;
}

void CSteppedPeer::Send(const std::string& strBytes) const {
    if (!m_System.Peers().empty()) {
        m_System.Peers().back().Send(strBytes);
    }
}

void CSteppedPeer::SendInParts(std::string strBytes, bool bCut) {
    if (bCut) {
        const std::size_t nFirst = m_Input.UpTo(strBytes.size());
        m_strKept = strBytes.substr(nFirst);
        strBytes.resize(nFirst);
    }
    Send(strBytes);
}

void CSteppedPeer::Read(std::size_t nMost) {
    for (CPeerEnd& peer : m_System.Peers()) {
        peer.Read(nMost);
    }
}

void CSteppedPeer::Hangup() {
    if (m_System.Peers().empty()) {
        return;
    }
    if (m_Input.Byte() % 2 == 0) {
        m_System.Peers().back().HalfClose();
    } else {
        CheckPeer(m_System.Peers().back());
        m_System.Peers().pop_back();
    }
}

void CSteppedPeer::PostQueueMsg(int nPipe) {
    const std::uint8_t byCode = m_Input.Byte() % 8;
    const std::string strPayload = m_Input.Bytes(std::size_t{m_Input.Byte()} + 1);
    g_MsgQueue.PostMsg(nPipe, byCode, strPayload.data(),
                       static_cast<std::int32_t>(strPayload.size()));
}

void CSteppedPeer::PostTimerMsg(int nPipe) {
    const std::int32_t nId = m_Input.Byte() % 2 != 0 ? MSG_TIMER : 0;
    const std::uint8_t byTimer = m_Input.Byte();
    const std::uint8_t byParam = m_Input.Byte();
    PostPipeMsg(nPipe, nId, byTimer, byParam);
}

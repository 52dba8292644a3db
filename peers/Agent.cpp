#include "peers/Agent.h"

#include <fmt/format.h>

#include <stdexcept>

bool CAgent::Accept(int nLimitMs) {
    m_Connection = m_Listener.Accept(nLimitMs);
    return m_Connection.IsOpen();
}

void CAgent::Register(std::uint32_t dwAddress, std::uint8_t byNode, int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    if (!m_Connection.IsOpen() && !Accept(nLimitMs)) {
        throw std::runtime_error(
            fmt::format("agent: the service did not connect to port {}", Port()));
    }
    const auto frame = Receive(deadline.LeftMs());
    if (!frame) {
        throw std::runtime_error(fmt::format("agent: no registration: {}", PeerEndText(End())));
    }
    ExpectRegistration(*frame);
    Send(MakeRegisterAck(dwAddress, byNode));
}

void CAgent::Send(const std::vector<AgentFrame>& frames) {
    PeerBytes bytes;
    for (const AgentFrame& frame : frames) {
        const PeerBytes encoded = frame.Encode();
        bytes.insert(bytes.end(), encoded.begin(), encoded.end());
    }
    m_Connection.Send(bytes);
}

std::optional<AgentFrame> CAgent::Receive(int nLimitMs) {
    const auto bytes = m_Connection.ReceiveFrame(&CBuff::CheckFeFrame, nLimitMs);
    if (!bytes) {
        return std::nullopt;
    }
    AgentFrame frame{(*bytes)[kCmdCommandOffset], {bytes->begin() + kCmdHeadBytes, bytes->end()}};
    if (frame.byCommand == CMD_KEEP_ALIVE) {
        ++m_nKeepAlives;
    }
    return frame;
}

std::optional<AgentAnswer> CAgent::ReceiveAnswer(int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    for (;;) {
        const auto frame = Receive(deadline.LeftMs());
        if (!frame) {
            return std::nullopt;
        }
        if (frame->byCommand != CMD_KEEP_ALIVE) {
            return DecodeAnswer(*frame);
        }
    }
}

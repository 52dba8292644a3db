#include "transfer/AgentServer.h"

#include <fmt/format.h>

#include <array>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/Buff.h"
#include "core/ConfigKeys.h"
#include "reading/ServiceConfig.h"

using asio::ip::tcp;

namespace {

constexpr std::int32_t kRingBytes = 1024;  // holds several whole frames

}  // namespace

std::uint16_t AgentPort(const std::string& strConfig) {
    return CServiceConfig(strConfig).Port(kPortSection, kAgentPortKey, "--port");
}

// The connection of one service.
class CAgentConnection : public std::enable_shared_from_this<CAgentConnection> {
public:
    CAgentConnection(CAgentServer& server, tcp::socket socket)
        : m_Server(server), m_Socket(std::move(socket)), m_Ring(kRingBytes) {}

    void AwaitBytes();
    void Send(const AgentFrame& frame);
    bool IsOpen() const { return m_Socket.is_open(); }

private:
    void OnBytes(const std::error_code& error, std::size_t nLen);
    void TakeFrames();
    void Handle(const AgentFrame& frame);
    void OnRegister(const AgentFrame& frame);
    void OnKeepAlive(const AgentFrame& frame);
    void OnAnswer(const AgentFrame& frame);
    void SendQueued();
    void End(const std::string& strWhy);

    CAgentServer& m_Server;
    tcp::socket m_Socket;
    CBuff m_Ring;
    std::array<std::uint8_t, kRingBytes> m_Piece{};
    FrameBytes m_Queued;
    FrameBytes m_Sending;  // on its way while not empty
};

void CAgentConnection::AwaitBytes() {
    const auto nFree = static_cast<std::size_t>(m_Ring.GetFree());
    m_Socket.async_read_some(
        asio::buffer(m_Piece.data(), nFree),
        [pSelf = shared_from_this()](const std::error_code& error, std::size_t nLen) {
            if (pSelf->IsOpen()) {
                pSelf->OnBytes(error, nLen);
            }
        });
}

void CAgentConnection::OnBytes(const std::error_code& error, std::size_t nLen) {
    if (error) {
        End(error == asio::error::eof ? "closed by the service" : error.message());
        return;
    }
    // No more than it has room for was read.
    static_cast<void>(m_Ring.Write(m_Piece.data(), static_cast<std::int32_t>(nLen)));
    try {
        TakeFrames();
    } catch (const std::runtime_error& failure) {
        End(failure.what());
        return;
    }
    AwaitBytes();
}

void CAgentConnection::TakeFrames() {
    for (std::int32_t nFrame = 0; (nFrame = m_Ring.CheckFeFrame()) != 0;) {
        if (nFrame < 0) {
            throw std::runtime_error("what came is no frame of a service");
        }
        FrameBytes bytes(static_cast<std::size_t>(nFrame));
        m_Ring.Skip(m_Ring.Peek(bytes.data(), nFrame));
        Handle({bytes[kCmdCommandOffset], {bytes.begin() + kCmdHeadBytes, bytes.end()}});
    }
}

void CAgentConnection::Handle(const AgentFrame& frame) {
    static const std::map<std::uint8_t, void (CAgentConnection::*)(const AgentFrame&)> handlers = {
        {CMD_REGISTER, &CAgentConnection::OnRegister},
        {CMD_KEEP_ALIVE, &CAgentConnection::OnKeepAlive},
        {CMD_ANSWER, &CAgentConnection::OnAnswer},
    };
    const auto handler = handlers.find(frame.byCommand);
    if (handler == handlers.end()) {
        throw std::runtime_error(
            fmt::format("command {:#04x} is none of a service", frame.byCommand));
    }
    (this->*handler->second)(frame);
}

void CAgentConnection::OnRegister(const AgentFrame& frame) {
    if (frame.payload.size() != sizeof(std::uint32_t) ||
        LoadLe32(frame.payload.data()) != kRegisterValue) {
        throw std::runtime_error("a registration with a wrong value");
    }
    Send(MakeRegisterAck(m_Server.m_Settings.dwSource, m_Server.m_Settings.byNode));
    m_Server.m_pRegistered = weak_from_this();
    m_Server.m_Events.fnNote("service registered");
    m_Server.m_Events.fnRegistered();
}

void CAgentConnection::OnKeepAlive(const AgentFrame& /*frame*/) {
    m_Server.m_Events.fnKeepAlive();
}

void CAgentConnection::OnAnswer(const AgentFrame& frame) {
    m_Server.m_Events.fnAnswer(DecodeAnswer(frame));
}

void CAgentConnection::Send(const AgentFrame& frame) {
    const FrameBytes bytes = frame.Encode();
    m_Queued.insert(m_Queued.end(), bytes.begin(), bytes.end());
    if (m_Sending.empty()) {
        SendQueued();
    }
}

void CAgentConnection::SendQueued() {
    m_Sending = std::exchange(m_Queued, {});
    if (m_Sending.empty()) {
        return;
    }
    asio::async_write(m_Socket, asio::buffer(m_Sending),
                      [pSelf = shared_from_this()](const std::error_code& error, std::size_t) {
                          pSelf->m_Sending.clear();
                          if (!error) {  // otherwise receiving ends, too
                              pSelf->SendQueued();
                          }
                      });
}

void CAgentConnection::End(const std::string& strWhy) {
    std::error_code ignored;
    m_Socket.close(ignored);
    m_Server.m_Events.fnNote("connection ended: " + strWhy);
}

CAgentServer::CAgentServer(asio::io_context& context, const Settings& settings, Events events)
    : m_Settings(settings), m_Events(std::move(events)), m_Acceptor(context) {
    const tcp::endpoint address(asio::ip::address_v4::loopback(), settings.wPort);
    try {
        m_Acceptor = tcp::acceptor(context, address);
    } catch (const std::system_error& error) {
        throw std::runtime_error(fmt::format(
            "port {} of {}: {}", settings.wPort, address.address().to_string(),
            error.code() == asio::error::address_in_use ? "a management agent runs there already"
                                                        : error.code().message()));
    }
    Accept();
}

CAgentServer::~CAgentServer() = default;

void CAgentServer::Accept() {
    m_Acceptor.async_accept([this](const std::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        if (error) {
            throw std::system_error(error, "agent");  // out of run: nobody could connect any more
        }
        m_Events.fnNote("service connected");
        std::make_shared<CAgentConnection>(*this, std::move(socket))->AwaitBytes();
        Accept();
    });
}

bool CAgentServer::Request(std::uint32_t dwId, const AgentRequest& request) {
    const auto pConnection = m_pRegistered.lock();
    if (!pConnection || !pConnection->IsOpen()) {
        return false;
    }
    pConnection->Send(MakeHlogRequest(dwId, request));
    return true;
}

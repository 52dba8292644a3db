#include "transfer/AgentServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/Buff.h"
#include "core/ConfigKeys.h"
#include "reading/ServiceConfig.h"
#include "support/MonoClock.h"
#include "transfer/AcceptError.h"
#include "transfer/SocketOwner.h"

using asio::ip::tcp;

namespace {

constexpr std::int32_t kRingBytes = 1024;  // holds several whole frames
constexpr std::chrono::milliseconds kAgentTick(500);
constexpr int kMostOwnerLooks = 20;      // through /proc, in a run: each takes milliseconds
constexpr std::size_t kMostNotes = 200;  // in so much time
constexpr std::int64_t kNotesMs = 60'000;

SocketEnd EndOf(const tcp::endpoint& endpoint) {
    return {endpoint.address().to_v4().to_uint(), endpoint.port()};
}

std::string Known(const std::string& strOwner) {
    return strOwner.empty() ? std::string() : " (" + strOwner + ")";
}

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
    bool IsRegistered() const { return m_bRegistered; }
    void OnTick(std::int64_t nNowMs);
    void End(const std::string& strWhy);

private:
    void OnBytes(const std::error_code& error, std::size_t nLen);
    void TakeFrames();
    void Handle(const AgentFrame& frame);
    void OnRegister(const AgentFrame& frame);
    void OnKeepAlive(const AgentFrame& frame);
    void OnAnswer(const AgentFrame& frame);
    void SendQueued();

    CAgentServer& m_Server;
    tcp::socket m_Socket;
    CBuff m_Ring;
    std::array<std::uint8_t, kRingBytes> m_Piece{};
    FrameBytes m_Queued;
    FrameBytes m_Sending;  // on its way while not empty
    bool m_bRegistered = false;
    std::string m_strOwner;  // once registered
    std::int64_t m_nSinceMs =
        MonotonicMs();  // of the connection; of the last bytes once registered
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
    if (m_bRegistered) {
        m_nSinceMs = MonotonicMs();
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
    if (m_Queued.size() > m_Server.m_Settings.nUnread) {
        throw std::runtime_error("registers again and again and does not read");
    }
    Send(MakeRegisterAck(m_Server.m_Settings.dwSource, m_Server.m_Settings.byNode));
    m_Server.m_pRegistered = weak_from_this();
    if (!std::exchange(m_bRegistered, true)) {
        m_strOwner = m_Server.OwnerOf(m_Socket);
        m_Server.Tell("service registered" + Known(m_strOwner));
    }
    m_Server.m_Events.fnRegistered(m_strOwner);
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
                          if (!error && pSelf->IsOpen()) {  // otherwise receiving ends, too
                              pSelf->SendQueued();
                          }
                      });
}

void CAgentConnection::End(const std::string& strWhy) {
    std::error_code ignored;
    m_Socket.close(ignored);
    m_Server.Tell("connection ended: " + strWhy);
    m_Server.m_Connections.remove(shared_from_this());
}

void CAgentConnection::OnTick(std::int64_t nNowMs) {
    const std::int64_t nLimitMs =
        m_bRegistered ? m_Server.m_Settings.nSilenceMs : m_Server.m_Settings.nRegisterMs;
    if (nNowMs - m_nSinceMs >= nLimitMs) {
        End(fmt::format("{} for {} s", m_bRegistered ? "nothing came" : "no registration came",
                        nLimitMs / 1000));
    }
}

CAgentServer::CAgentServer(asio::io_context& context, const Settings& settings, Events events)
    : m_Settings(settings),
      m_Events(std::move(events)),
      m_Acceptor(context),
      m_Tick(context),
      m_nToldSinceMs(MonotonicMs()) {
    const tcp::endpoint address(asio::ip::address_v4::loopback(), settings.wPort);
    try {
        m_Acceptor = tcp::acceptor(context, address);
    } catch (const std::system_error& error) {
        throw std::runtime_error(
            fmt::format("port {} of {}: {}", settings.wPort, address.address().to_string(),
                        error.code() == asio::error::address_in_use
                            ? "a management agent runs there already" +
                                  Known(SocketOwner(EndOf(address), SocketEnd()))
                            : error.code().message()));
    }
    Accept();
    AwaitTick();
}

CAgentServer::~CAgentServer() = default;

void CAgentServer::Accept() {
    if (m_bAccepting) {
        return;
    }
    m_bAccepting = true;
    m_Acceptor.async_accept([this](const std::error_code& error, tcp::socket socket) {
        m_bAccepting = false;
        OnAccepted(error, std::move(socket));
    });
}

// After a shortage the next tick tries again.
void CAgentServer::OnAccepted(const std::error_code& error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) {
        return;
    }
    if (IsShortage(error)) {
        if (!std::exchange(m_bShortageTold, true)) {
            m_Events.fnNote("no connection can be taken for now: " + error.message());
        }
        return;
    }
    if (!error && MakePlace()) {
        Tell("service connected");
        m_Connections.push_back(std::make_shared<CAgentConnection>(*this, std::move(socket)));
        m_Connections.back()->AwaitBytes();
    }
    Accept();
}

// The one that has not registered for the longest time gives way; registered ones do not.
bool CAgentServer::MakePlace() {
    if (m_Connections.size() < m_Settings.nConnections) {
        return true;
    }
    const auto itOldest =
        std::find_if(m_Connections.begin(), m_Connections.end(),
                     [](const auto& pConnection) { return !pConnection->IsRegistered(); });
    if (itOldest == m_Connections.end()) {
        Tell(fmt::format("a connection was refused: {} services are registered",
                         m_Connections.size()));
        return false;
    }
    const std::shared_ptr<CAgentConnection> pOldest = *itOldest;
    pOldest->End("gave way to a newer one");
    return true;
}

std::string CAgentServer::OwnerOf(const tcp::socket& socket) {
    std::error_code error;
    const tcp::endpoint remote = socket.remote_endpoint(error);
    const tcp::endpoint local = error ? tcp::endpoint() : socket.local_endpoint(error);
    if (error || ++m_nOwnerLooks > kMostOwnerLooks) {
        return {};
    }
    return SocketOwner(EndOf(remote), EndOf(local));
}

void CAgentServer::Tell(const std::string& strText) {
    if (m_nTold >= kMostNotes) {
        ++m_nUntold;
        return;
    }
    ++m_nTold;
    m_Events.fnNote(strText);
}

void CAgentServer::AwaitTick() {
    m_Tick.expires_after(kAgentTick);
    m_Tick.async_wait([this](const std::error_code& error) {
        if (!error) {
            OnTick();
        }
    });
}

void CAgentServer::OnTick() {
    const std::int64_t nNowMs = MonotonicMs();
    const auto connections = m_Connections;  // which those that end leave
    for (const auto& pConnection : connections) {
        pConnection->OnTick(nNowMs);
    }
    if (nNowMs - m_nToldSinceMs >= kNotesMs) {
        if (std::exchange(m_nTold, 0) >= kMostNotes && m_nUntold > 0) {
            m_Events.fnNote(fmt::format("{} more notes in the last minute", m_nUntold));
        }
        m_nUntold = 0;
        m_nToldSinceMs = nNowMs;
    }
    Accept();
    AwaitTick();
}

bool CAgentServer::Request(std::uint32_t dwId, const AgentRequest& request) {
    const auto pConnection = m_pRegistered.lock();
    if (!pConnection || !pConnection->IsOpen()) {
        return false;
    }
    pConnection->Send(MakeHlogRequest(dwId, request));
    return true;
}

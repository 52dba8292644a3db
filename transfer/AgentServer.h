// A management agent on the loopback address for whoever connects: answers registrations, sends
// history requests, tells what passes in words (link/CmdFrame.h has the layouts). Any program of
// the machine may connect, so there is a limit to the connections, to the time until a connection
// registers or says anything, and to what waits for one that does not read.
//
// Threads: everything runs in the thread of the io_context.
#pragma once

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "transfer/AgentFrame.h"

// The port that a log.conf gives the management agent. Throws std::runtime_error, naming the path,
// when it gives none.
std::uint16_t AgentPort(const std::string& strConfig);

class CAgentConnection;

class CAgentServer {
public:
    struct Settings {
        std::uint16_t wPort = 0;     // of 127.0.0.1; 0: one that the kernel picks
        std::uint32_t dwSource = 0;  // for the register answer: the address that uploads start from
        std::uint8_t byNode = 0;     // and the node code
        std::size_t nConnections = 64;  // at a time
        int nRegisterMs = 10'000;       // for a connection to register
        int nSilenceMs = 60'000;        // between what a registered one sends; it has to each 3 s
        std::size_t nUnread = 64'000;   // bytes of answers that wait for one that does not read
    };
    // What the owner is told; each must be set.
    struct Events {
        std::function<void(const std::string&)> fnNote;  // a line on what passes
        std::function<void()> fnKeepAlive;
        // Request reaches that service from now on; strOwner: whose it is, as SocketOwner says.
        std::function<void(const std::string& strOwner)> fnRegistered;
        std::function<void(const AgentAnswer&)> fnAnswer;
    };

    // Listens. Throws std::runtime_error, saying whether another agent has it, when the port cannot
    // be had.
    CAgentServer(asio::io_context& context, const Settings& settings, Events events);
    ~CAgentServer();
    CAgentServer(const CAgentServer&) = delete;
    CAgentServer& operator=(const CAgentServer&) = delete;

    std::uint16_t Port() const { return m_Acceptor.local_endpoint().port(); }

    // Sends a history request to the service that registered last. False when it is gone.
    bool Request(std::uint32_t dwId, const AgentRequest& request);

private:
    friend class CAgentConnection;

    void Accept();
    void OnAccepted(const std::error_code& error, asio::ip::tcp::socket socket);
    bool MakePlace();
    std::string OwnerOf(const asio::ip::tcp::socket& socket);
    void Tell(const std::string& strText);  // not without end
    void AwaitTick();
    void OnTick();

    Settings m_Settings;
    Events m_Events;
    asio::ip::tcp::acceptor m_Acceptor;
    asio::steady_timer m_Tick;
    std::list<std::shared_ptr<CAgentConnection>> m_Connections;  // the oldest first
    std::weak_ptr<CAgentConnection> m_pRegistered;
    bool m_bAccepting = false;
    bool m_bShortageTold = false;
    std::size_t m_nTold = 0;  // notes since the last ones were left out
    std::size_t m_nUntold = 0;
    std::int64_t m_nToldSinceMs;
    int m_nOwnerLooks = 0;
};

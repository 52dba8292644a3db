// A management agent on the loopback address for whoever connects: answers registrations, sends
// history requests, tells what passes in words (link/CmdFrame.h has the layouts).
//
// Threads: everything runs in the thread of the io_context.
#pragma once

#include <asio.hpp>
#include <cstdint>
#include <functional>
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
    };
    // What the owner is told; each must be set.
    struct Events {
        std::function<void(const std::string&)> fnNote;  // a line on what passes
        std::function<void()> fnKeepAlive;
        std::function<void()> fnRegistered;  // Request reaches that service from now on
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

    Settings m_Settings;
    Events m_Events;
    asio::ip::tcp::acceptor m_Acceptor;
    std::weak_ptr<CAgentConnection> m_pRegistered;
};

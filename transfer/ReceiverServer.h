// A receiver for any number of services at once: listens, takes every session that comes and goes
// through each with a CReception. What one peer does costs that peer's session only.
//
// Threads: everything runs in the thread of the io_context.
#pragma once

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "transfer/ProgressBars.h"
#include "transfer/Reception.h"

class CReceiverConnection;

class CReceiverServer {
public:
    struct Settings {
        std::string strProgram;           // stands in front of lines about failures
        asio::ip::tcp::endpoint address;  // to listen on; port 0: one that the kernel picks
        int nSilenceMs = 0;               // how long a peer may leave us waiting
        std::uint32_t nSessions = 0;      // that end before fnDone is called; 0: it never is
        ReceiveLimits limits;
        ReceiveJob job;
    };
    // Listens. bars and pSink outlive this; the sink gets all records and files, null: nobody does.
    // fnDone: called once; nothing else is after it. Throws
    // std::runtime_error when the address cannot be had.
    CReceiverServer(asio::io_context& context, Settings settings, CProgressBars& bars,
                    CRecordSink* pSink, std::function<void()> fnDone);
    ~CReceiverServer();
    CReceiverServer(const CReceiverServer&) = delete;
    CReceiverServer& operator=(const CReceiverServer&) = delete;

    std::uint16_t Port() const { return m_Acceptor.local_endpoint().port(); }

    // Whether a peer has connected that was not refused in the handshake.
    bool HasHadSessions() const { return !m_Connections.empty() || m_nEnded > 0; }

    // Ends what is still under way, after the io_context's run. Sums up in m_Total.
    void Stop();

    // What all sessions brought together; failures: those that no later session of the same
    // appliance made good.
    ReceptionResult Total() const;
    std::uint32_t Sessions() const { return m_nEnded; }  // that got through the handshake and ended

private:
    friend class CReceiverConnection;

    void Accept();
    void OnAccepted(const std::error_code& error, asio::ip::tcp::socket socket);
    void OnNewcomer(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    bool MakePlace(const CPlaces::Verdict& verdict, const std::string& strAddress);
    void TellRefusal(const char* szReason, const std::string& strAddress);
    void AwaitTick();
    void OnTick();
    void ShowProgress();
    void Note(const std::string& strAppliance, const std::string& strText);
    void Report(const std::string& strAppliance, const std::string& strText);
    void ReportFailures(const CReceiverConnection& connection);
    void RememberFailures(const CReception& reception);
    // Of a connection that is closed already.
    void OnEnded(const std::shared_ptr<CReceiverConnection>& pConnection);
    void BeginDay();

    Settings m_Settings;
    CProgressBars& m_Bars;
    std::function<void()> m_fnDone;
    CReception::Events m_Events;
    asio::ip::tcp::acceptor m_Acceptor;
    asio::steady_timer m_Tick;
    CPlaces m_Places;
    CQuota m_Quota;
    CToldOnce m_Told;
    std::int64_t m_nDaySinceMs;
    std::set<std::shared_ptr<CReceiverConnection>> m_Connections;
    bool m_bAccepting = false;
    std::vector<std::uint8_t> m_Piece;  // what any connection has just read: used up at once
    std::uint32_t m_nEnded = 0;
    ReceptionResult m_Ended;  // sums of the sessions that ended, without failures
    // By appliance, of its latest session; of more appliances than are remembered, under "".
    std::map<std::string, std::vector<std::string>> m_mapFailures;
};

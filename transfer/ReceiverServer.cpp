#include "transfer/ReceiverServer.h"

#include <fmt/format.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "support/MonoClock.h"
#include "transfer/AcceptError.h"

using asio::ip::tcp;

namespace {

constexpr std::size_t kPieceBytes = 65536;
constexpr int kPiecesAtATime = 4;  // that one session may take while others wait
constexpr std::chrono::milliseconds kTick(200);
constexpr std::size_t kOtherDescriptors = 32;
constexpr std::size_t kDescriptorsEach = 2;  // the connection and the file
constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;
constexpr std::size_t kMostStrangerLines = 10;    // of an address, a day
constexpr std::size_t kMostFailedNames = 10'000;  // appliances whose failures are remembered

// Raises the limit of open descriptors as far as it goes and returns it.
std::size_t RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    const rlim_t nNow = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    return static_cast<std::size_t>(setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_max : nNow);
}

std::size_t MostConnections() {
    const std::size_t nLimit = RaiseDescriptorLimit();
    return nLimit > kOtherDescriptors + kDescriptorsEach
               ? (nLimit - kOtherDescriptors) / kDescriptorsEach
               : 1;
}

// A peer that vanished without a word is noticed although a live session may be silent for ever.
void KeepAlive(tcp::socket& socket) {
    const std::pair<int, int> options[] = {{TCP_KEEPIDLE, 60}, {TCP_KEEPINTVL, 10}};
    std::error_code ignored;  // the session works without, here and below
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    for (const auto& [nOption, nSeconds] : options) {
        static_cast<void>(
            setsockopt(socket.native_handle(), IPPROTO_TCP, nOption, &nSeconds, sizeof(nSeconds)));
    }
}

void Add(ReceptionResult& sum, const ReceptionResult& result) {
    sum.nBytes += result.nBytes;
    sum.nFiles += result.nFiles;
    sum.nHere += result.nHere;
    sum.nNotKept += result.nNotKept;
    sum.nRecords += result.nRecords;
}

}  // namespace

// The socket of one session.
class CReceiverConnection : public std::enable_shared_from_this<CReceiverConnection> {
public:
    CReceiverConnection(CReceiverServer& server, tcp::socket socket,
                        const asio::ip::address& address)
        : m_Server(server),
          m_Socket(std::move(socket)),
          m_dwAddress(address.to_v4().to_uint()),
          m_Reception(server.m_Settings.job, server.m_Events, server.m_Quota, address.to_string()) {
    }

    void Start();
    void OnTick(std::int64_t nNowMs);
    void Stop(const std::string& strWhy);  // without telling the server
    const CReception& Reception() const { return m_Reception; }
    std::uint32_t Address() const { return m_dwAddress; }
    bool IsPending() const { return m_bPending; }  // in its handshake, as the server knows
    std::int64_t SinceMs() const { return m_nSinceMs; }
    void GiveWay() { Break("gave way to a session of another address"); }

private:
    void AwaitBytes();
    void CountProgress(std::size_t nLen);
    void OnReadable();
    bool TakePieces();  // false: the session has ended
    void OnPiece(std::size_t nLen);
    void OnReadError(const std::error_code& error);
    void SendOutput();
    void OnSent(const std::error_code& error);
    void End();
    void Break(const std::string& strWhy);

    CReceiverServer& m_Server;
    tcp::socket m_Socket;
    const std::uint32_t m_dwAddress;
    bool m_bPending = true;
    CReception m_Reception;
    FrameBytes m_Sending;  // on its way while not empty
    std::int64_t m_nSinceMs = MonotonicMs();
    std::uint64_t m_nSlowBytes = 0;  // of a file, since then
    std::uint32_t m_nStep = 0;
};

void CReceiverConnection::Start() {
    std::error_code ignored;  // the session works without
    m_Socket.set_option(tcp::no_delay(true), ignored);
    KeepAlive(m_Socket);
    m_Socket.non_blocking(true, ignored);
    AwaitBytes();
}

// Only waits: the piece that is read into is the server's, so that a session needs no buffer of its
// own while nothing comes.
void CReceiverConnection::AwaitBytes() {
    m_Socket.async_wait(tcp::socket::wait_read,
                        [pSelf = shared_from_this()](const std::error_code& error) {
                            if (!error && pSelf->m_Socket.is_open()) {
                                pSelf->OnReadable();
                            }
                        });
}

void CReceiverConnection::OnReadable() {
    try {
        if (!TakePieces()) {
            return;
        }
    } catch (const std::exception& error) {
        Break(error.what());
        return;
    }
    if (m_bPending && m_Reception.HasBegun()) {
        m_bPending = false;
        m_Server.m_Places.FinishHandshake(m_dwAddress);
    }
    SendOutput();
    if (m_Socket.is_open()) {
        AwaitBytes();
    }
}

bool CReceiverConnection::TakePieces() {
    for (int nPiece = 0; nPiece < kPiecesAtATime; ++nPiece) {
        std::error_code error;
        const std::size_t nLen = m_Socket.read_some(asio::buffer(m_Server.m_Piece), error);
        if (error == asio::error::would_block) {
            return true;
        }
        if (error) {
            OnReadError(error);
            return false;
        }
        OnPiece(nLen);
    }
    return true;
}

void CReceiverConnection::OnPiece(std::size_t nLen) {
    if (m_Reception.IsOver()) {
        return;  // the session is only awaited to close
    }
    m_Reception.Take(m_Server.m_Piece.data(), nLen);
    if (m_Reception.TimeLimit() == CReception::Limit::kSinceByte) {
        CountProgress(nLen);
    }
}

// A byte now and then is no progress: it would hold a place for ever.
void CReceiverConnection::CountProgress(std::size_t nLen) {
    m_nSlowBytes += nLen;
    const auto nSeconds = static_cast<std::uint64_t>(m_Server.m_Settings.nSilenceMs) / 1000;
    if (m_nSlowBytes >= nSeconds * m_Server.m_Settings.limits.nLeastBytesPerSecond) {
        m_nSinceMs = MonotonicMs();
        m_nSlowBytes = 0;
    }
}

void CReceiverConnection::OnReadError(const std::error_code& error) {
    if (error == asio::error::eof || m_Reception.IsOver()) {
        m_Reception.OnClosed();
        End();
    } else {
        Break(error.message());
    }
}

void CReceiverConnection::SendOutput() {
    if (!m_Sending.empty()) {
        return;
    }
    m_Sending = m_Reception.TakeOutput();
    if (m_Sending.empty()) {
        if (m_Reception.IsOver() && !m_Reception.IsRebooting()) {
            std::error_code ignored;  // closed by the peer already
            m_Socket.shutdown(tcp::socket::shutdown_send, ignored);
        }
        return;
    }
    asio::async_write(m_Socket, asio::buffer(m_Sending),
                      [pSelf = shared_from_this()](const std::error_code& error, std::size_t) {
                          if (pSelf->m_Socket.is_open()) {
                              pSelf->OnSent(error);
                          }
                      });
}

void CReceiverConnection::OnSent(const std::error_code& error) {
    m_Sending.clear();
    if (!error) {
        SendOutput();
    }
    // An error of sending is one of receiving, too, and ends the session there.
}

void CReceiverConnection::OnTick(std::int64_t nNowMs) {
    if (m_Reception.Step() != m_nStep) {
        m_nStep = m_Reception.Step();
        m_nSinceMs = nNowMs;
        m_nSlowBytes = 0;
    }
    if (m_Reception.TimeLimit() == CReception::Limit::kNone ||
        nNowMs - m_nSinceMs < m_Server.m_Settings.nSilenceMs) {
        return;
    }
    if (m_Reception.IsOver() && !m_Reception.IsRebooting()) {
        End();  // all is here; the service may close when it likes
    } else {
        const int nSeconds = m_Server.m_Settings.nSilenceMs / 1000;
        Break(m_nSlowBytes == 0
                  ? fmt::format("nothing came for {} s", nSeconds)
                  : fmt::format("only {} bytes came in {} s", m_nSlowBytes, nSeconds));
    }
}

void CReceiverConnection::Break(const std::string& strWhy) {
    // What explains the end to the peer; all of it fits or none matters.
    const FrameBytes output = m_Reception.TakeOutput();
    std::error_code ignored;
    if (m_Sending.empty() && !output.empty()) {
        m_Socket.write_some(asio::buffer(output), ignored);
    }
    m_Reception.GiveUp(strWhy);
    End();
}

void CReceiverConnection::End() {
    std::error_code ignored;
    m_Socket.close(ignored);
    m_Server.OnEnded(shared_from_this());
}

void CReceiverConnection::Stop(const std::string& strWhy) {
    std::error_code ignored;
    m_Socket.close(ignored);
    try {
        m_Reception.OnClosed();
    } catch (const std::runtime_error&) {
        m_Reception.GiveUp(strWhy);
    }
}

CReceiverServer::CReceiverServer(asio::io_context& context, Settings settings, CProgressBars& bars,
                                 CRecordSink* pSink, std::function<void()> fnDone)
    : m_Settings(std::move(settings)),
      m_Bars(bars),
      m_fnDone(std::move(fnDone)),
      m_Acceptor(context),
      m_Tick(context),
      m_Places(m_Settings.limits),
      m_Quota(m_Settings.limits),
      m_nDaySinceMs(MonotonicMs()),
      m_Piece(kPieceBytes) {
    m_Settings.limits.nSessions = std::min(m_Settings.limits.nSessions, MostConnections());
    m_Events.pSink = pSink;
    m_Events.fnNote = [this](const std::string& strAppliance, const std::string& strText) {
        Note(strAppliance, strText);
    };
    try {
        m_Acceptor.open(tcp::v4());
        m_Acceptor.set_option(tcp::acceptor::reuse_address(true));
        m_Acceptor.bind(m_Settings.address);
        m_Acceptor.listen();
    } catch (const std::system_error& error) {
        throw std::runtime_error(fmt::format("cannot listen on {}:{}: {}",
                                             m_Settings.address.address().to_string(),
                                             m_Settings.address.port(), error.code().message()));
    }
    Accept();
    AwaitTick();
}

CReceiverServer::~CReceiverServer() = default;

void CReceiverServer::Accept() {
    if (m_bAccepting) {
        return;
    }
    m_bAccepting = true;
    m_Acceptor.async_accept([this](const std::error_code& error, tcp::socket socket) {
        m_bAccepting = false;
        OnAccepted(error, std::move(socket));
    });
}

// What is short is there again some time: the next tick tries again. A peer that has gone already
// keeps nobody waiting.
void CReceiverServer::OnAccepted(const std::error_code& error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) {
        return;
    }
    if (IsShortage(error)) {
        if (m_Told.May("shortage")) {
            m_Bars.Note(fmt::format("{}: no session can be taken for now: {}",
                                    m_Settings.strProgram, error.message()));
        }
        return;
    }
    std::error_code gone = error;
    const tcp::endpoint peer = gone ? tcp::endpoint() : socket.remote_endpoint(gone);
    if (!gone) {
        OnNewcomer(std::move(socket), peer);
    }
    Accept();
}

void CReceiverServer::OnNewcomer(tcp::socket socket, const tcp::endpoint& peer) {
    const std::uint32_t dwAddress = peer.address().to_v4().to_uint();
    if (!MakePlace(m_Places.Judge(dwAddress), peer.address().to_string())) {
        return;  // which closes the socket
    }
    const auto pConnection =
        std::make_shared<CReceiverConnection>(*this, std::move(socket), peer.address());
    m_Connections.insert(pConnection);
    m_Places.Enter(dwAddress);
    pConnection->Start();
}

bool CReceiverServer::MakePlace(const CPlaces::Verdict& verdict, const std::string& strAddress) {
    switch (verdict.eAnswer) {
        case CPlaces::Answer::kCome:
            return true;
        case CPlaces::Answer::kDisplace:
            break;
        case CPlaces::Answer::kNotAllowed:
            TellRefusal("it is not in --allow", strAddress);
            return false;
        case CPlaces::Answer::kTooManyOfAddress:
            TellRefusal("it has as many as --max-sessions-each allows", strAddress);
            return false;
        case CPlaces::Answer::kTooManyPendingOfAddress:
            TellRefusal("it has as many unfinished handshakes as --max-pending-each allows",
                        strAddress);
            return false;
        case CPlaces::Answer::kFull:
            TellRefusal("all places are taken (--max-sessions, --max-pending, ulimit -n)",
                        strAddress);
            return false;
    }
    // Of that address the one goes that has not got through its handshake, and of those the one
    // that made no progress for the longest time.
    std::shared_ptr<CReceiverConnection> pVictim;
    for (const auto& pOne : m_Connections) {
        if (pOne->Address() != verdict.dwVictim || (verdict.bPendingOnly && !pOne->IsPending())) {
            continue;
        }
        const auto rank = [](const CReceiverConnection& connection) {
            return std::make_pair(!connection.IsPending(), connection.SinceMs());
        };
        if (!pVictim || rank(*pOne) < rank(*pVictim)) {
            pVictim = pOne;
        }
    }
    if (pVictim) {
        pVictim->GiveWay();
    }
    return pVictim != nullptr;
}

// Once for each address and reason, and not for more than some addresses a day.
void CReceiverServer::TellRefusal(const char* szReason, const std::string& strAddress) {
    if (m_Told.May(strAddress + szReason) && m_Told.May(szReason, kMostStrangerLines)) {
        Report(strAddress, fmt::format("no session: {}; not told again within a day", szReason));
    }
}

void CReceiverServer::AwaitTick() {
    m_Tick.expires_after(kTick);
    m_Tick.async_wait([this](const std::error_code& error) {
        if (!error) {
            OnTick();
        }
    });
}

void CReceiverServer::OnTick() {
    const std::int64_t nNowMs = MonotonicMs();
    const std::vector<std::shared_ptr<CReceiverConnection>> connections(m_Connections.begin(),
                                                                        m_Connections.end());
    for (const auto& pConnection : connections) {
        pConnection->OnTick(nNowMs);
    }
    if (nNowMs - m_nDaySinceMs >= kDayMs) {
        BeginDay();
    }
    ShowProgress();
    Accept();
    AwaitTick();
}

void CReceiverServer::ShowProgress() {
    std::vector<ProgressItem> items;
    std::uint64_t nFetched = m_Ended.nBytes;
    for (const auto& pConnection : m_Connections) {
        const CReception& reception = pConnection->Reception();
        nFetched += reception.Result().nBytes;
        const CDownload* const pDownload = reception.Download();
        if (pDownload != nullptr && pDownload->Size() > 0) {
            items.push_back(
                {reception.Name() + " " + pDownload->Name(), pDownload->Done(), pDownload->Size()});
        }
    }
    m_Bars.Show(items, nFetched);
}

void CReceiverServer::Note(const std::string& strAppliance, const std::string& strText) {
    m_Bars.Note(fmt::format("{}: {}", strAppliance, strText));
}

void CReceiverServer::Report(const std::string& strAppliance, const std::string& strText) {
    m_Bars.Note(fmt::format("{}: {}: {}", m_Settings.strProgram, strAppliance, strText));
}

void CReceiverServer::OnEnded(const std::shared_ptr<CReceiverConnection>& pConnection) {
    m_Connections.erase(pConnection);
    m_Places.Leave(pConnection->Address(), pConnection->IsPending());
    const CReception& reception = pConnection->Reception();
    ReportFailures(*pConnection);
    if (!reception.HasBegun()) {
        return;  // a stranger, for all we know
    }
    Add(m_Ended, reception.Result());
    RememberFailures(reception);
    if (++m_nEnded == m_Settings.nSessions) {
        m_fnDone();
    }
}

// What strangers do wrong, and whom a quota stops, is told as often as it helps.
void CReceiverServer::ReportFailures(const CReceiverConnection& connection) {
    const CReception& reception = connection.Reception();
    const std::string strAddress = asio::ip::address_v4(connection.Address()).to_string();
    for (const std::string& strFailure : reception.Result().failures) {
        const bool bTold =
            reception.HasHitQuota()
                ? m_Told.May(strAddress + " quota")
                : reception.HasBegun() || m_Told.May(strAddress + " stranger", kMostStrangerLines);
        if (bTold) {
            Report(reception.Name(), strFailure);
        }
    }
}

// Whoever invents names fills no memory with them.
void CReceiverServer::RememberFailures(const CReception& reception) {
    const std::vector<std::string>& failures = reception.Result().failures;
    if (failures.empty()) {
        m_mapFailures.erase(reception.Name());
    } else if (m_mapFailures.size() < kMostFailedNames ||
               m_mapFailures.count(reception.Name()) > 0) {
        m_mapFailures[reception.Name()] = failures;
    } else {
        m_mapFailures[""] = {"more appliances failed than are remembered"};
    }
}

void CReceiverServer::BeginDay() {
    m_nDaySinceMs = MonotonicMs();
    m_Quota.BeginDay();
    m_Told.Forget();
}

void CReceiverServer::Stop() {
    for (const auto& pConnection : std::exchange(m_Connections, {})) {
        pConnection->Stop("stopped");
        OnEnded(pConnection);
    }
    m_Bars.Clear();
}

ReceptionResult CReceiverServer::Total() const {
    ReceptionResult total = m_Ended;
    for (const auto& [strAppliance, failures] : m_mapFailures) {
        std::copy(failures.begin(), failures.end(), std::back_inserter(total.failures));
    }
    return total;
}

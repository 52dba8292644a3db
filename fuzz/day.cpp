// The reader of day's files in tarvik-log: any bytes as a file to CDayStream, in both directions,
// and its records to every form of output. Each JSON line parses and says what the record says;
// every other form but CSV keeps to one line for a record.
//
// Input: where the slots behind the header begin (2 bytes), so that a short input can have the end
// of the ring; what is read besides all records from the first to the last; then the file.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Check.h"
#include "fuzz/FakeSystem.h"
#include "fuzz/InputBytes.h"
#include "fuzz/ServiceState.h"
#include "reading/ClientNames.h"
#include "reading/Complaints.h"
#include "reading/DayStream.h"
#include "reading/DayWalk.h"
#include "reading/RecordFormat.h"

namespace {

const char* const kFile = "/20261122.log";

// The file, with a hole of nHole slots behind the header.
void PutDayFile(std::size_t nHole, const std::string& strBytes) {
    PutFile(kFile, strBytes.substr(0, kRecordBytes));
    if (strBytes.size() <= kRecordBytes) {
        return;
    }
    const CUniqueFd file(open(RootPath(kFile).c_str(), O_WRONLY | O_CLOEXEC));
    const std::size_t nRest = strBytes.size() - kRecordBytes;
    Check(pwrite(file.Get(), strBytes.data() + kRecordBytes, nRest,
                 static_cast<off_t>((nHole + 1) * kRecordBytes)) == static_cast<ssize_t>(nRest),
          "the root takes files");
}

// What a reader of JSON gets of the line.
void CheckJson(const std::string& strLine, const LogRecord& record) {
    const auto json = nlohmann::json::parse(strLine, nullptr, false);
    Check(!json.is_discarded() && json.is_object(), "a JSON line is an object");
    Check(json["client"] == record.nIndex && json["type"] == record.nType,
          "the numbers of the record are in the object");
    Check(json["text"].is_string() && json["name"].is_string() && json["severity"].is_string(),
          "texts are texts");
    const std::string strTime = json["time"];
    Check(strTime.size() >= std::strlen("2026-11-22T14:05:09"), "there is a time");
}

void CheckLine(const std::string& strName, const std::string& strLine, const LogRecord& record) {
    Check(strLine.ends_with('\n'), "a line has its end");
    if (strName == "json") {
        CheckJson(strLine, record);
    }
    if (strName != "csv") {
        Check(std::none_of(strLine.begin(), strLine.end() - 1,
                           [](char c) { return static_cast<unsigned char>(c) < ' '; }),
              "a record takes one line, without control characters");
    }
}

class CForms {
public:
    CForms() {
        for (const RecordForm* pForm : RecordForms(EFormUse::kShow)) {
            m_Forms.push_back({pForm->szName, pForm->pfnMake({m_Names, false, ""})});
        }
    }

    void Write(const FoundRecord& found) {
        for (const auto& [strName, pForm] : m_Forms) {
            fmt::memory_buffer buffer;
            pForm->Append(buffer, found);
            CheckLine(strName, fmt::to_string(buffer), found.record);
        }
    }

private:
    struct Form {
        std::string strName;
        std::unique_ptr<CRecordFormat> pForm;
    };

    CClientNames m_Names;
    std::vector<Form> m_Forms;
};

std::vector<std::uint64_t> Numbers(CDayStream& stream, EDirection eDirection, CForms* pForms) {
    std::vector<std::uint64_t> numbers;
    WalkRecords(stream, stream.Begin(), stream.End(), eDirection, [&](const FoundRecord& found) {
        numbers.push_back(found.nNumber);
        if (pForms != nullptr) {
            pForms->Write(found);
        }
        return true;
    });
    return numbers;
}

void CheckBackward(CDayStream& stream, const std::vector<std::uint64_t>& forward) {
    std::vector<std::uint64_t> backward = Numbers(stream, EDirection::kBackward, nullptr);
    std::reverse(backward.begin(), backward.end());
    Check(forward == backward, "both directions find the same records");
}

void CheckPlaceOfLast(const CDayStream& stream, const std::vector<std::uint64_t>& forward) {
    CComplaints complaints("fuzz_day");
    const std::size_t nLast = std::min<std::size_t>(forward.size(), 3);
    const CDayWalk::Place place = CDayWalk({{RootPath(kFile), stream.Id()}}, complaints)
                                      .PlaceOfLast(nLast, [](const FoundRecord&) { return true; });
    Check(nLast == 0 || place.nNumber == forward[forward.size() - nLast],
          "the newest records are found from the end");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    CInputBytes input(pData, nLen);
    const std::size_t nHole = input.UpTo(kLogFileUnits);
    const std::uint8_t byBesides = input.Byte();
    PutDayFile(nHole, input.Present(nLen));
    const CFakeSystem system([] {});  // the reader waits for a slot that is being written
    CDayStream stream(RootPath(kFile));
    CForms forms;
    const std::vector<std::uint64_t> forward = Numbers(stream, EDirection::kForward, &forms);
    for (const std::string& strDamage : stream.Damage()) {
        Check(!strDamage.empty(), "a damage is told");
    }
    if (byBesides % 3 == 1) {
        CheckBackward(stream, forward);
    } else if (byBesides % 3 == 2) {
        CheckPlaceOfLast(stream, forward);
    }
    return 0;
}

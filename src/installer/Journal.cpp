// The in-memory journal, and the protocol that keeps the journal file true to it.
#include "installer/Events.h"
#include "installer/KiteInstaller.h"
#include "log/ScopeLog.h"

namespace kite {

void CKiteInstaller::RecordAction(const ActionRecord& record) {
    ScopeLog log("CKiteInstaller::RecordAction");
    log << "src = " << record.source << ", dst=" << ShownDestination(record)
        << ", action=" << static_cast<int>(record.action) << std::endl;
    journal_.push_back(record);
}

void CKiteInstaller::RecordComRegistration(const std::string& path, unsigned int reg,
                                           unsigned int serverType) {
    ScopeLog log("CKiteInstaller::RecordComRegistration");
    log << "src = " << path << ", reg=" << reg << ", server=" << serverType << std::endl;
    // A server that this installation unregistered is registered again on undo, and one that it
    // registered is unregistered.
    RecordAction(ActionRecord{path, "", reg != 0 ? Action::RegisterAgain : Action::UnregisterAgain,
                              static_cast<int>(serverType), ""});
}

JournaledChange::JournaledChange(CKiteInstaller& installer, std::vector<ActionRecord> records)
    : installer_(installer),
      records_(std::move(records)),
      made_(records_.size(), false),
      announced_(installer.durable_.Intend(records_)) {
    if (!announced_) {
        ReportError("KITE: CKiteInstaller journal could not be written for " +
                    records_.front().source +
                    " with GetLastError: " + std::to_string(::GetLastError()));
    }
}

JournaledChange::~JournaledChange() {
    if (!announced_) return;
    std::vector<ActionRecord> notMade;
    for (std::size_t i = records_.size(); i-- > 0;) {
        if (!made_[i]) notMade.push_back(records_[i]);
    }
    installer_.durable_.Settle(notMade);
}

void JournaledChange::Made(std::size_t index) {
    const ActionRecord& record = records_[index];
    made_[index] = true;
    if (IsRegistration(record.action)) {
        installer_.RecordComRegistration(record.source, record.action == Action::RegisterAgain,
                                         static_cast<unsigned int>(record.serverType));
    } else {
        installer_.RecordAction(record);
    }
}

std::string FileIdentity(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return std::string();
    const unsigned long long size =
        (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    const unsigned long long written =
        (static_cast<unsigned long long>(data.ftLastWriteTime.dwHighDateTime) << 32) |
        data.ftLastWriteTime.dwLowDateTime;
    return std::to_string(size) + ":" + std::to_string(written);
}

}  // namespace kite

#include "installer/KiteInstaller.h"

#include "log/ScopeLog.h"

namespace kite {

void CKiteInstaller::RecordAction(const std::string& source, const std::string& destination,
                                  int action) {
    ScopeLog log("CKiteInstaller::RecordAction");
    log << "src = " << source << ", dst=" << destination << ", action=" << action << std::endl;
    journal_.push_back(ActionRecord{source, destination, action});
}

void CKiteInstaller::RecordComRegistration(const std::string& path, unsigned int reg,
                                           unsigned int serverType) {
    ScopeLog log("CKiteInstaller::RecordComRegistration");
    log << "src = " << path << ", reg=" << reg << ", server=" << serverType << std::endl;
    // A server that this installation unregistered is registered again on undo, and one that it
    // registered is unregistered.
    RecordAction(path, std::to_string(serverType), reg != 0 ? kRegisterAgain : kUnregisterAgain);
}

}  // namespace kite

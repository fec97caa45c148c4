#include "installer/Plan.h"

#include "common/BoundedFormat.h"
#include "common/Text.h"

namespace kite {

namespace {

bool IsChange(char kind) {
    return kind != 0 && std::string("MBAPG").find(kind) != std::string::npos;
}

bool ParseItem(const std::vector<std::string>& fields, WorkItem& item) {
    if (fields.size() != 6 || fields[0].size() != 1 || !IsChange(fields[0][0])) return false;
    item.change = static_cast<Change>(fields[0][0]);
    item.target = fields[1];
    item.aside = fields[2];
    item.temp = fields[3];
    item.serverType = TextToInt(fields[4]);
    item.identity = fields[5];
    return std::to_string(item.serverType) == fields[4] && !item.target.empty();
}

}  // namespace

std::string MarkerPath(const std::string& productFolder) {
    char path[260];
    FormatBounded(path, "%s\\CriticalFixes\\force_apply_kite.dat", productFolder.c_str());
    return path;
}

std::string JournalPath(const std::string& productFolder) {
    char path[260];
    FormatBounded(path, "%s\\CriticalFixes\\%s", productFolder.c_str(), kJournalFileName);
    return path;
}

std::string BackupPath(const std::string& productFolder, const std::string& dst) {
    char path[260];
    FormatBounded(path, "%s\\CriticalFixes\\%s", productFolder.c_str(),
                  dst.substr(dst.rfind('\\') + 1).c_str());
    return path;
}

std::string BackupTempPath(const std::string& productFolder, std::size_t command) {
    char path[260];
    FormatBounded(path, "%s\\CriticalFixes\\%zu%s", productFolder.c_str(), command + 1,
                  kTempSuffix);
    return path;
}

std::vector<WorkItem> PlanChanges(const std::string& productFolder,
                                  const std::vector<PlannedCommand>& commands,
                                  const std::vector<CommandFacts>& facts, int highestServerType) {
    std::vector<WorkItem> items{{Change::Marker, MarkerPath(productFolder), "", "", 0, ""}};
    for (std::size_t i = 0; i < commands.size(); ++i) {
        const PlannedCommand& command = commands[i];
        const CommandFacts& fact = facts[i];
        if (fact.backupWanted) {
            items.push_back({Change::Backup, BackupPath(productFolder, command.dst), "",
                             BackupTempPath(productFolder, i), 0, ""});
        }
        if (fact.exists && !fact.aside.empty()) {
            items.push_back({Change::Aside, command.dst, fact.aside, "",
                             command.serverType > 0 ? command.serverType : 0, ""});
        }
        items.push_back({Change::Place, command.dst, fact.exists ? fact.aside : "",
                         command.dst + kTempSuffix, 0, fact.identity});
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
        const int type = commands[i].serverType;
        if (type >= 1 && type <= highestServerType) {
            items.push_back({Change::Register, commands[i].dst, "", "", type, facts[i].identity});
        }
    }
    return items;
}

std::string JournalText(const InstallPlan& plan) {
    std::string text =
        std::string(plan.folderSupport ? "F\n" : "") + (plan.createdFolder ? "D\n" : "");
    for (const WorkItem& item : plan.items) {
        text += std::string(1, static_cast<char>(item.change)) + "\t" + item.target + "\t" +
                item.aside + "\t" + item.temp + "\t" + std::to_string(item.serverType) + "\t" +
                item.identity + "\n";
    }
    return text + "E\n";
}

// A line cut short (no line end) was never followed by a change: the plan is flushed whole before
// the first change, and the commit mark before the first deletion.
InstallPlan ReadJournalText(const std::string& text) {
    InstallPlan plan;
    std::string::size_type start = 0;
    for (std::string::size_type end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        const std::string line = text.substr(start, end - start);
        WorkItem item;
        if (line == "F") {
            plan.folderSupport = true;
        } else if (line == "D") {
            plan.createdFolder = true;
        } else if (line == "E" && !plan.complete) {
            plan.complete = true;
        } else if (line == "C" && plan.complete && !plan.committing) {
            plan.committing = true;
        } else if (!plan.complete && ParseItem(SplitText(line, '\t'), item)) {
            plan.items.push_back(item);
        } else {
            plan.wellFormed = false;
            break;
        }
    }
    return plan;
}

}  // namespace kite

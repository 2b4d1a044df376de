// corvida-pb store repair|upgrade|compact: looking after a store's files.
#include <iostream>

#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "corvida-pb/store_command.h"

namespace corvida_pb {
namespace {

const StoreCommandTraits kRepair = {
    "repair", "salvage a damaged store",
    "Salvages the store in --db (a directory), which no process may hold: its\n"
    "write-ahead logs are replayed skipping damaged records, and its file list\n"
    "is rebuilt from its table files when that list is damaged. Prints what was\n"
    "dropped or rebuilt, as RocksDB reports it (file names and byte counts). Run\n"
    "'store verify' on each table afterwards.\n",
    StoreAccess::kWrite, false, nullptr};

class RepairCommand : public StoreCommand {
public:
    explicit RepairCommand(CLI::App* parent) : StoreCommand(parent, kRepair) {}

    int Run() override {
        Options();
        std::vector<std::string> report;
        CheckStore(corvida::store::RepairStore(db(), &report));
        if (json()) {
            Json lines = Json::array();
            for (const std::string& line : report) lines.push_back(line);
            PrintJson(std::cout, {{"db", db()}, {"operation", "repair"}, {"report", lines}});
            return kExitOk;
        }
        for (const std::string& line : report) std::cout << Printable(line) << "\n";
        std::cout << "repaired " << Printable(db()) << ": " << report.size()
                  << (report.size() == 1 ? " thing" : " things") << " dropped or rebuilt\n";
        return kExitOk;
    }
};

const StoreCommandTraits kUpgrade = {
    "upgrade", "rewrite a store of an older key layout in the current one",
    "Rewrites the store in --db (a directory) from key layout 1 into the current\n"
    "layout, in place and in one atomic write: a crash during the upgrade leaves\n"
    "the store of the old layout or of the new one, never a mix. Tables become\n"
    "named by the full names of their types. The whole store is held in memory\n"
    "while it is rewritten.\n",
    StoreAccess::kWrite, false, nullptr};

class UpgradeCommand : public StoreCommand {
public:
    explicit UpgradeCommand(CLI::App* parent) : StoreCommand(parent, kUpgrade) {}

    int Run() override {
        bool upgraded = false;
        CheckStore(corvida::store::UpgradeStore(db(), Options(), &upgraded));
        if (json()) {
            PrintJson(std::cout, {{"db", db()}, {"operation", "upgrade"}, {"upgraded", upgraded}});
        } else if (upgraded) {
            std::cout << "upgraded " << Printable(db()) << " to the current key layout\n";
        } else {
            std::cout << Printable(db()) << " is of the current key layout already\n";
        }
        return kExitOk;
    }
};

const StoreCommandTraits kCompact = {
    "compact", "rewrite the store's files so that deleted records leave them",
    "Compacts the store in --db: its files are rewritten without what was\n"
    "deleted or overwritten, so that the bytes of deleted records leave the disk\n"
    "(until then they stay in the table files and logs).\n",
    StoreAccess::kWrite, false, nullptr};

class CompactCommand : public StoreCommand {
public:
    explicit CompactCommand(CLI::App* parent) : StoreCommand(parent, kCompact) {}

    int Run() override {
        OpenStore();
        CheckStore(store().Compact());
        if (json()) {
            PrintJson(std::cout, {{"db", db()}, {"operation", "compact"}});
        } else {
            std::cout << "compacted " << Printable(db()) << "\n";
        }
        return kExitOk;
    }
};

}  // namespace

void AddStoreAdminCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands) {
    commands->push_back(std::make_unique<RepairCommand>(group));
    commands->push_back(std::make_unique<UpgradeCommand>(group));
    commands->push_back(std::make_unique<CompactCommand>(group));
}

}  // namespace corvida_pb

// The etcd engine is loaded when a process first opens an etcd:// locator,
// and not before: a process that opens directories never maps gRPC. This
// program links the table store as the tool does (not the engine), and the
// case that loads it runs the steps in order, since a module once loaded stays.
#include <stdlib.h>

#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "store/shared_library.h"
#include "store/table_store.h"
#include "store_test_support.h"

namespace {

using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::TableStore;
using corvida_store_test::TempDir;

constexpr char kModuleVariable[] = "CORVIDA_STORE_ETCD_MODULE";
// Nothing listens on port 1 of the loopback: the engine, once loaded, fails
// to reach the cluster at once.
constexpr char kLocator[] = "etcd://127.0.0.1:1/module";

// Whether a file whose name contains part is mapped into this process.
bool Mapped(const std::string& part) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(part) != std::string::npos) return true;
    }
    return false;
}

Status OpenEtcd() {
    StoreOptions options;
    options.timeout_seconds = 2;
    std::unique_ptr<TableStore> store;
    return TableStore::Open(kLocator, options, &store);
}

// The program's own library search path, which finds the module in the
// build tree even where dlopen's search of a bare name would not (under a
// sanitizer that intercepts dlopen): this program's RUNPATH holds the
// module's directory.
TEST(ProgramSearchPathTest, HoldsTheProgramsRunpath) {
    bool found = false;
    for (const std::string& dir : corvida::store::ProgramSearchPath()) {
        found = found || std::ifstream(dir + "/libcorvida_store_etcd.so").good();
    }
    EXPECT_TRUE(found);
}

TEST(EtcdModuleTest, LoadedOnlyByAnEtcdLocator) {
    TempDir dir;
    StoreOptions options;
    options.create_if_missing = true;
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(TableStore::Open(dir.Sub("store"), options, &store).ok());
    store.reset();
    EXPECT_FALSE(Mapped("libcorvida_store_etcd.so"));
    EXPECT_FALSE(Mapped("libgrpc"));
    EXPECT_FALSE(Mapped("libabsl"));

    // A module that is not there is an error naming the file.
    const std::string missing = dir.Sub("missing.so");
    ASSERT_EQ(setenv(kModuleVariable, missing.c_str(), 1), 0);
    Status s = OpenEtcd();
    EXPECT_TRUE(s.IsNotSupported()) << s.ToString();
    EXPECT_EQ(s.message(), std::string(kLocator) + ": " + missing +
                               ": no such file (the etcd engine's module named by CORVIDA_STORE_ETCD_MODULE)");

    // One that is no shared object, too; nothing is left loaded.
    const std::string text = dir.Sub("text.so");
    std::ofstream(text) << "not a shared object\n";
    ASSERT_EQ(setenv(kModuleVariable, text.c_str(), 1), 0);
    s = OpenEtcd();
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_EQ(s.message().rfind(std::string(kLocator) + ": the etcd engine's module cannot be loaded: " + text, 0),
              0u)
        << s.ToString();
    EXPECT_FALSE(Mapped("libgrpc"));

    // Found where the build put it: the engine runs, and cannot reach the
    // cluster.
    ASSERT_EQ(unsetenv(kModuleVariable), 0);
    s = OpenEtcd();
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("no member of the cluster is reachable"), std::string::npos) << s.ToString();
    EXPECT_TRUE(Mapped("libcorvida_store_etcd.so"));
    EXPECT_TRUE(Mapped("libgrpc"));

    // The loaded module serves the next opens; the variable no longer
    // matters.
    ASSERT_EQ(setenv(kModuleVariable, missing.c_str(), 1), 0);
    s = OpenEtcd();
    EXPECT_NE(s.message().find("no member of the cluster is reachable"), std::string::npos) << s.ToString();
    ASSERT_EQ(unsetenv(kModuleVariable), 0);
}

}  // namespace

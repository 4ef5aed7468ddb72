#include "agent/HostIdentity.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/TestSupport.h"

using testing_support::TempDir;
using testing_support::writeFile;

namespace {

class UnsetTz {
public:
    UnsetTz() {
        const char* tz = std::getenv("TZ");
        had_ = tz != nullptr;
        saved_ = had_ ? tz : "";
        unsetenv("TZ");
    }
    ~UnsetTz() {
        if (had_) {
            setenv("TZ", saved_.c_str(), 1);
        }
    }

private:
    bool had_;
    std::string saved_;
};

}  // namespace

TEST(HostIdentityTest, TzNamesTheZone) {
    UnsetTz unset;
    setenv("TZ", ":Europe/Paris", 1);
    EXPECT_EQ("Europe/Paris", HostIdentity::zone());
    setenv("TZ", "/usr/share/zoneinfo/Asia/Tokyo", 1);
    EXPECT_EQ("Asia/Tokyo", HostIdentity::zone());
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3", HostIdentity::zone());
}

TEST(HostIdentityTest, WithoutTzTheHostsTimezoneFileNamesIt) {
    UnsetTz unset;
    TempDir root;
    mkdir(root.file("etc").c_str(), 0755);
    writeFile(root.file("etc/timezone"), "America/New_York\n");
    EXPECT_EQ("America/New_York", HostIdentity::zone(root.path()));
}

TEST(HostIdentityTest, OtherwiseTheLocaltimeLinkNamesIt) {
    UnsetTz unset;
    TempDir root;
    mkdir(root.file("etc").c_str(), 0755);
    ASSERT_EQ(0,
              symlink("/usr/share/zoneinfo/Australia/Sydney", root.file("etc/localtime").c_str()));
    EXPECT_EQ("Australia/Sydney", HostIdentity::zone(root.path()));
}

TEST(HostIdentityTest, NothingKnownMeansUtc) {
    UnsetTz unset;
    TempDir root;
    EXPECT_EQ("UTC", HostIdentity::zone(root.path()));
}

std::string hostname() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    return host;
}

TEST(HostIdentityTest, AgentNameIsTheHostnameAndMachineId) {
    TempDir root;
    mkdir(root.file("etc").c_str(), 0755);
    writeFile(root.file("etc/machine-id"), "0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ(hostname() + ":0123456789abcdef0123456789abcdef",
              HostIdentity::agentName(root.path()));
}

TEST(HostIdentityTest, AgentNameIsTheSameForEveryStartOnTheMachine) {
    TempDir root;
    mkdir(root.file("etc").c_str(), 0755);
    writeFile(root.file("etc/machine-id"), "fedcba9876543210fedcba9876543210\n");
    EXPECT_EQ(HostIdentity::agentName(root.path()), HostIdentity::agentName(root.path()));
    EXPECT_EQ(std::string::npos,
              HostIdentity::agentName(root.path()).find(std::to_string(getpid())));
}

TEST(HostIdentityTest, AgentNameFallsBackToDbusMachineId) {
    TempDir root;
    mkdir(root.file("etc").c_str(), 0755);
    writeFile(root.file("etc/machine-id"), "uninitialized\n");
    mkdir(root.file("var").c_str(), 0755);
    mkdir(root.file("var/lib").c_str(), 0755);
    mkdir(root.file("var/lib/dbus").c_str(), 0755);
    writeFile(root.file("var/lib/dbus/machine-id"), "00112233445566778899aabbccddeeff\n");
    EXPECT_EQ(hostname() + ":00112233445566778899aabbccddeeff",
              HostIdentity::agentName(root.path()));
}

TEST(HostIdentityTest, AgentNameWithoutMachineIdIsTheHostname) {
    TempDir root;
    EXPECT_EQ(hostname(), HostIdentity::agentName(root.path()));
}

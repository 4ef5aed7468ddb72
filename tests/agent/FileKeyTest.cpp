#include "agent/FileKey.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "agent/Sha256.h"
#include "support/TestSupport.h"

using testing_support::TempDir;
using testing_support::writeFile;

namespace {

class OpenFile {
public:
    explicit OpenFile(const std::string& path) : fd(open(path.c_str(), O_RDONLY)) {}
    ~OpenFile() { close(fd); }
    int fd;
};

}  // namespace

TEST(FileKeyTest, KeyNamesDeviceInodeAndTheFirst64BytesDigest) {
    TempDir dir;
    const std::string content = std::string(100, 'a') + "\n";
    writeFile(dir.file("log"), content);
    OpenFile file(dir.file("log"));
    struct stat info {};
    fstat(file.fd, &info);
    FileKey key;
    ASSERT_TRUE(FileKey::make(file.fd, key).ok());
    EXPECT_EQ(std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino) +
                  ":64:" + Sha256::hex(content.substr(0, 64)),
              key.text());
}

TEST(FileKeyTest, AShortFileIsKeyedByAllItsBytes) {
    TempDir dir;
    writeFile(dir.file("log"), "short\n");
    OpenFile file(dir.file("log"));
    FileKey key;
    ASSERT_TRUE(FileKey::make(file.fd, key).ok());
    EXPECT_EQ(6, key.prefixLength);
    EXPECT_EQ(Sha256::hex("short\n"), key.prefixDigest);
}

TEST(FileKeyTest, AnEmptyFileHasNoKey) {
    TempDir dir;
    writeFile(dir.file("log"), "");
    OpenFile file(dir.file("log"));
    FileKey key;
    EXPECT_EQ(Status::Code::INVALID, FileKey::make(file.fd, key).code());
}

TEST(FileKeyTest, TextReadsBackToTheSameKey) {
    TempDir dir;
    writeFile(dir.file("log"), "line one\n");
    OpenFile file(dir.file("log"));
    FileKey key;
    ASSERT_TRUE(FileKey::make(file.fd, key).ok());
    FileKey parsed;
    ASSERT_TRUE(FileKey::parse(key.text(), parsed));
    EXPECT_EQ(key.text(), parsed.text());
    EXPECT_TRUE(parsed.matches(file.fd));
}

TEST(FileKeyTest, ParseRefusesWhatIsNotAKey) {
    FileKey key;
    EXPECT_FALSE(FileKey::parse("", key));
    EXPECT_FALSE(FileKey::parse("1:2:3", key));
    EXPECT_FALSE(FileKey::parse("1:2:65:" + std::string(64, 'a'), key));
    EXPECT_FALSE(FileKey::parse("x:2:3:" + std::string(64, 'a'), key));
}

TEST(FileKeyTest, AFileWhoseFirstBytesChangedIsNotTheKeysFile) {
    TempDir dir;
    writeFile(dir.file("log"), "first line\n");
    OpenFile file(dir.file("log"));
    FileKey key;
    ASSERT_TRUE(FileKey::make(file.fd, key).ok());
    writeFile(dir.file("log"), "other line\n");
    EXPECT_FALSE(key.matches(file.fd));
}

TEST(FileKeyTest, AnotherFileWithTheSameBytesIsNotTheKeysFile) {
    TempDir dir;
    writeFile(dir.file("a"), "same\n");
    writeFile(dir.file("b"), "same\n");
    OpenFile a(dir.file("a"));
    OpenFile b(dir.file("b"));
    FileKey key;
    ASSERT_TRUE(FileKey::make(a.fd, key).ok());
    EXPECT_TRUE(key.matches(a.fd));
    EXPECT_FALSE(key.matches(b.fd));
}

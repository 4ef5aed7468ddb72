// The checkpoint file: entries found by device and inode, written through a
// temporary file, and only the files of the last run kept.

#include "companion/Checkpoint.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TestSupport.h"

using namespace testing_support;

TEST(CheckpointTest, MissingFileIsAnEmptyCheckpoint) {
    TempDir dir;
    Checkpoint checkpoint(dir.file("none"));
    ASSERT_TRUE(checkpoint.load().ok());
    EXPECT_EQ(checkpoint.find(1, 2), nullptr);
}

TEST(CheckpointTest, SavedEntriesAreFoundByDeviceAndInode) {
    TempDir dir;
    Checkpoint first(dir.file("cp"));
    ASSERT_TRUE(first.load().ok());
    first.record({7, 42, 1234, 17, "/var/log/qirn_audit.log"});
    first.record({7, 43, 10, 2, "/var/log/qirn_audit.log.1"});
    ASSERT_TRUE(first.save().ok());
    EXPECT_FALSE(fileExists(dir.file("cp.tmp")));

    Checkpoint second(dir.file("cp"));
    ASSERT_TRUE(second.load().ok());
    const Checkpoint::Entry* entry = second.find(7, 42);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->offset, 1234);
    EXPECT_EQ(entry->nextLine, 17u);
    EXPECT_EQ(entry->name, "/var/log/qirn_audit.log");
    EXPECT_EQ(second.find(8, 42), nullptr);
}

TEST(CheckpointTest, EntriesNotRecordedAgainAreDroppedOnSave) {
    TempDir dir;
    Checkpoint first(dir.file("cp"));
    first.record({7, 42, 1234, 17, "a"});
    first.record({7, 43, 10, 2, "b"});
    ASSERT_TRUE(first.save().ok());
    Checkpoint second(dir.file("cp"));
    ASSERT_TRUE(second.load().ok());
    second.record({7, 43, 20, 3, "b"});
    ASSERT_TRUE(second.save().ok());
    Checkpoint third(dir.file("cp"));
    ASSERT_TRUE(third.load().ok());
    EXPECT_EQ(third.find(7, 42), nullptr);
    ASSERT_NE(third.find(7, 43), nullptr);
    EXPECT_EQ(third.find(7, 43)->offset, 20);
}

TEST(CheckpointTest, MalformedLineIsAnError) {
    TempDir dir;
    writeFile(dir.file("cp"), "# header\n7 42 x 1 a\n");
    Checkpoint checkpoint(dir.file("cp"));
    const Status loaded = checkpoint.load();
    EXPECT_FALSE(loaded.ok());
    EXPECT_EQ(loaded.message(), dir.file("cp") + ": malformed checkpoint line: 7 42 x 1 a");
}

TEST(CheckpointTest, UnwritableDirectoryIsAnError) {
    Checkpoint checkpoint("/proc/qlc-no-such-dir/cp");
    checkpoint.record({1, 2, 3, 4, "x"});
    const Status saved = checkpoint.save();
    EXPECT_FALSE(saved.ok());
    EXPECT_NE(saved.message().find("cannot write checkpoint"), std::string::npos);
}

// Metadata records and both of their host stores.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "fs/metadata.h"

using namespace tervane::emu::fs;

TEST(FsMetadata, RecordRoundTrip) {
    FileMeta m;
    m.present = FileMeta::kHasAttributes | FileMeta::kHasCreationTime | FileMeta::kHasShortName;
    m.attributes = 0x21;
    m.creationTime = 132000000000000000LL;
    m.changeTime = -5;
    m.shortName = u"LONGFI~1.TXT";
    std::vector<uint8_t> bytes = EncodeMeta(m);
    FileMeta back;
    ASSERT_TRUE(DecodeMeta(bytes.data(), bytes.size(), &back));
    EXPECT_EQ(back.present, m.present);
    EXPECT_EQ(back.attributes, m.attributes);
    EXPECT_EQ(back.creationTime, m.creationTime);
    EXPECT_EQ(back.changeTime, m.changeTime);
    EXPECT_EQ(back.shortName, m.shortName);
    // Every truncation and a wrong magic are refused, never read past.
    for (size_t n = 0; n < bytes.size(); ++n) EXPECT_FALSE(DecodeMeta(bytes.data(), n, &back)) << n;
    bytes[0] ^= 1;
    EXPECT_FALSE(DecodeMeta(bytes.data(), bytes.size(), &back));
}

TEST(FsMetadata, NtTimeConversion) {
    EXPECT_EQ(NtTimeFromUnix(0, 0), 116444736000000000LL);
    int64_t s, ns;
    UnixFromNtTime(NtTimeFromUnix(1700000000, 123456700), &s, &ns);
    EXPECT_EQ(s, 1700000000);
    EXPECT_EQ(ns, 123456700);
    UnixFromNtTime(1, &s, &ns);  // before 1970: nanoseconds stay positive
    EXPECT_GE(ns, 0);
    EXPECT_LT(ns, 1000000000);
}

class FsMetaStore : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() /
               ("tervane-meta-" + std::to_string(getpid()) + "-" + std::to_string(GetParam()));
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
        root_ = open(dir_.c_str(), O_RDONLY | O_DIRECTORY);
    }
    void TearDown() override {
        close(root_);
        std::filesystem::remove_all(dir_);
    }
    std::filesystem::path dir_;
    int root_ = -1;
};

TEST_P(FsMetaStore, SavedMetadataIsSeenByANewStore) {
    int fd = openat(root_, "f", O_CREAT | O_RDWR, 0644);
    ASSERT_GE(fd, 0);
    struct stat st;
    fstat(fd, &st);
    FileMeta m;
    m.present = FileMeta::kHasAttributes;
    m.attributes = FILE_ATTRIBUTE_READONLY;
    {
        MetaStore store(root_, GetParam());
        EXPECT_EQ(store.UsesXattrs(), !GetParam());
        ASSERT_TRUE(store.Save(fd, st.st_ino, m));
        ASSERT_TRUE(store.SaveSecurity(fd, st.st_ino, {1, 2, 3}));
    }
    MetaStore again(root_, GetParam());
    FileMeta back;
    ASSERT_TRUE(again.Load(fd, st.st_ino, &back));
    EXPECT_EQ(back.attributes, FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(again.LoadSecurity(fd, st.st_ino), (std::vector<uint8_t>{1, 2, 3}));
    again.Forget(st.st_ino);
    if (GetParam()) {
        EXPECT_FALSE(again.Load(fd, st.st_ino, &back));
    }
    close(fd);
}

// Two volumes over one host directory: what one writes, the other reads
// on its next open, though it read the file's record before.
TEST_P(FsMetaStore, ARecordReadBeforeGivesWayToAnyWrite) {
    int fd = openat(root_, "f", O_CREAT | O_RDWR, 0644);
    ASSERT_GE(fd, 0);
    MetaStore mine(root_, GetParam()), other(root_, GetParam());
    struct stat st;
    FileMeta m, back;
    for (ULONG attributes : {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
        fstat(fd, &st);
        mine.LoadRecent(fd, st, &back);
        m.present = FileMeta::kHasAttributes;
        m.attributes = attributes;
        ASSERT_TRUE((attributes == FILE_ATTRIBUTE_HIDDEN ? mine : other).Save(fd, st.st_ino, m));
        fstat(fd, &st);
        mine.LoadRecent(fd, st, &back);
        EXPECT_EQ(back.attributes, attributes);
    }
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(XattrsAndFiles, FsMetaStore, ::testing::Values(false, true));

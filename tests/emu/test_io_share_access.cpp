// The share-access rules file systems apply through IoCheckShareAccess.
#include <gtest/gtest.h>

#include "kernel.h"

namespace {

struct ShareCase {
    const char* what;
    ACCESS_MASK firstAccess;
    ULONG firstShare;
    ACCESS_MASK secondAccess;
    ULONG secondShare;
    NTSTATUS expected;
};

constexpr ULONG kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

TEST(ShareAccess, SecondOpenAgainstTheFirst) {
    const ShareCase cases[] = {
        {"readers sharing read", FILE_READ_DATA, FILE_SHARE_READ, FILE_READ_DATA, FILE_SHARE_READ, STATUS_SUCCESS},
        {"writer after a reader who shares only read", FILE_READ_DATA, FILE_SHARE_READ, FILE_WRITE_DATA, kAll,
         STATUS_SHARING_VIOLATION},
        {"reader not sharing write after a writer", FILE_WRITE_DATA, kAll, FILE_READ_DATA, FILE_SHARE_READ,
         STATUS_SHARING_VIOLATION},
        {"append counts as write", FILE_READ_DATA, FILE_SHARE_READ, FILE_APPEND_DATA, kAll, STATUS_SHARING_VIOLATION},
        {"execute counts as read", FILE_WRITE_DATA, FILE_SHARE_WRITE, FILE_EXECUTE, kAll, STATUS_SHARING_VIOLATION},
        {"delete needs shared delete", FILE_READ_DATA, FILE_SHARE_READ, DELETE, kAll, STATUS_SHARING_VIOLATION},
        {"delete shared", FILE_READ_DATA, kAll, DELETE, kAll, STATUS_SUCCESS},
        {"attributes only never conflict", FILE_READ_DATA | FILE_WRITE_DATA, 0, FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0,
         STATUS_SUCCESS},
        {"an attributes-only first open is not counted", FILE_READ_ATTRIBUTES, 0, FILE_WRITE_DATA, 0, STATUS_SUCCESS},
        {"exclusive first open", FILE_READ_DATA, 0, FILE_READ_DATA, kAll, STATUS_SHARING_VIOLATION},
    };
    for (const ShareCase& c : cases) {
        SHARE_ACCESS share{};
        FILE_OBJECT first{}, second{};
        IoSetShareAccess(c.firstAccess, c.firstShare, &first, &share);
        EXPECT_EQ(IoCheckShareAccess(c.secondAccess, c.secondShare, &second, &share, TRUE), c.expected) << c.what;
    }
}

TEST(ShareAccess, CountsFollowUpdatesAndRemovals) {
    SHARE_ACCESS share{};
    FILE_OBJECT reader{}, writer{}, third{};
    IoSetShareAccess(FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, &reader, &share);
    ASSERT_EQ(IoCheckShareAccess(FILE_WRITE_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, &writer, &share, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(share.OpenCount, 2u);
    EXPECT_EQ(share.Readers, 1u);
    EXPECT_EQ(share.Writers, 1u);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA, FILE_SHARE_READ, &third, &share, FALSE), STATUS_SHARING_VIOLATION)
        << "a writer is open";
    IoRemoveShareAccess(&writer, &share);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA, FILE_SHARE_READ, &third, &share, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(share.OpenCount, 1u) << "a check without update counts nothing";
    IoUpdateShareAccess(&third, &share);
    EXPECT_EQ(share.OpenCount, 2u);
}

}  // namespace

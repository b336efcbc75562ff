// The file layer under many threads: handles opened, used and closed at once, transfers at their
// own addresses on one handle, and the search for the directory for temporary files.
#include "support/file_test.h"
#include "support/scale.h"
#include "support/threads.h"

#include "psp/tmpdir.h"

#include <atomic>
#include <cstring>
#include <string>

#include <sys/inotify.h>

using namespace psptest;

namespace {

constexpr int thread_count = 8;
const int scale = in_long_run(1, 50);

template <class Body>
void together(Body body)
{
    run_together(thread_count, body);
}

class FileStress : public PspTest {
  protected:
    TempDir dir_;
};

TEST_F(FileStress, ThreadsOpenUseAndCloseTheirOwnHandles)
{
    together([this](int number) {
        const std::string path = dir_ / ("file" + std::to_string(number));
        for (int i = 0; i < 300 * scale; i++) {
            const std::string text = std::to_string(number) + ":" + std::to_string(i);
            const auto size = static_cast<std::uint32_t>(text.size());
            const Handle handle(path, O_RDWR | O_TRUNC);
            ASSERT_NE(handle, nullptr);
            ASSERT_EQ(psp_fileWrite(handle, text.data(), size), size);
            ASSERT_EQ(psp_fileLock(handle), sOKAY);
            psp_fileUnlock(handle);
            char bytes[32];
            ASSERT_EQ(psp_fileSeekRead(handle, 0, bytes, sizeof bytes), size);
            ASSERT_EQ(std::string(bytes, size), text);
            ASSERT_EQ(psp_fileOpen((path + "/none").c_str(), O_RDONLY, 0), nullptr);
        }
    });
}

TEST_F(FileStress, ThreadsTransferOnOneHandleAtTheirOwnAddresses)
{
    constexpr std::uint32_t part = 64;
    const Handle handle(dir_ / "file", O_RDWR | O_CREAT);
    ASSERT_NE(handle, nullptr);
    together([&](int number) {
        const auto at = static_cast<PSP_FILE_OFFSET>(number) * part;
        for (int i = 0; i < 500 * scale; i++) {
            char written[part];
            char read[part] = {};
            std::memset(written, number + i, part);
            ASSERT_EQ(psp_fileSeekWrite(handle, at, written, part), part);
            ASSERT_EQ(psp_fileSeekRead(handle, at, read, part), part);
            ASSERT_EQ(std::memcmp(written, read, part), 0);
        }
    });
    EXPECT_EQ(psp_fileLength(handle), part * thread_count);
    EXPECT_EQ(psp_fileSeek(handle, 0, SEEK_CUR, nullptr), sOKAY);
}

TEST_F(FileStress, ThreadsCloseWhatOthersOpened)
{
    write_file(dir_ / "file", "x");
    std::atomic<PSP_FH> slots[4] = {};
    together([&](int number) {
        for (int i = 0; i < 400 * scale; i++) {
            const PSP_FH mine = psp_fileOpen((dir_ / "file").c_str(), O_RDONLY, 0);
            ASSERT_NE(mine, nullptr);
            psp_fileClose(slots[(number + i) % 4].exchange(mine));
        }
    });
    for (std::atomic<PSP_FH>& slot : slots)
        psp_fileClose(slot);
}

TEST_F(FileStress, OneOfManyHandlesHoldsTheLock)
{
    write_file(dir_ / "file", "");
    std::atomic<int> holders{0};
    std::atomic<int> times_held{0};
    together([&](int) {
        const Handle handle(dir_ / "file");
        for (int i = 0; i < 300 * scale; i++) {
            if (psp_fileLock(handle) != sOKAY)
                continue;
            ASSERT_EQ(++holders, 1);
            times_held++;
            holders--;
            psp_fileUnlock(handle);
        }
    });
    EXPECT_GT(times_held, 0);
}

TEST_F(FileStress, ConcurrentFirstSearchesTryADirectoryOnce)
{
    EXPECT_EQ(run_in_child([this] {
                  unsetenv("ZYN_TMPDIR");
                  const int watch = inotify_init1(IN_NONBLOCK);
                  EXPECT_GE(inotify_add_watch(watch, dir_.c_str(), IN_CREATE), 0);
                  for (int round = 0; round < 20; round++) {
                      psp_setTmpDir(dir_.c_str());
                      together([this](int) {
                          EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), dir_.path());
                      });
                      alignas(inotify_event) char events[4096];
                      const ssize_t size = read(watch, events, sizeof events);
                      const auto* const event = reinterpret_cast<const inotify_event*>(events);
                      // One file was made: one event, which fills all that was read.
                      EXPECT_EQ(size, static_cast<ssize_t>(sizeof *event + event->len));
                  }
                  close(watch);
                  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
                  return 0;
              }),
              0);
}

} // namespace

// A NULL where a handle, a text or a place for a result belongs: refused where there is a code for
// it, without effect where there is none, in every family.
#include "support/psp_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>

using namespace psptest;

namespace {

class Null : public PspTest {
  protected:
    std::size_t used() const
    {
        PSP_TAG_MEM_INFO info;
        EXPECT_EQ(psp_getTagMemInfo(PSP_GLOBAL_TAG, &info), sOKAY);
        return info.used.current;
    }
};

PSP_PRINTF(2, 3)
int32_t print(PSP_FILE_STREAM stream, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_vfprintf(stream, format, args);
    va_end(args);
    return written;
}

TEST_F(Null, StreamReadsAsEnded)
{
    char line[8] = "line";
    EXPECT_EQ(psp_fgetc(nullptr), -1);
    EXPECT_EQ(psp_fungetc('c', nullptr), -1);
    EXPECT_EQ(psp_fgets(line, sizeof line, nullptr), nullptr);
    EXPECT_STREQ(line, "line");
    char* buffer = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(psp_fGetLine(nullptr, &buffer, &size, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(buffer, nullptr);
}

TEST_F(Null, StreamTakesNothing)
{
    EXPECT_EQ(psp_fputc('c', nullptr), 0);
    EXPECT_EQ(psp_fputs("text", nullptr), -1);
    EXPECT_EQ(print(nullptr, "%d", 5), -1);
    EXPECT_EQ(psp_fflush(nullptr), 0);
    EXPECT_EQ(psp_fsync(nullptr), 0);
    psp_fclose(nullptr);
}

TEST_F(Null, StreamIsNoTerminalAndNoStandardInput)
{
    ZYN_BOOL_T tty = 7;
    EXPECT_EQ(psp_fIsATTY(nullptr, &tty), eINVNULLARG);
    EXPECT_EQ(tty, 7);
    EXPECT_EQ(psp_fSetEcho(nullptr, ZYN_TRUE), eINVNULLARG);
    EXPECT_EQ(psp_fIsStdIn(nullptr), ZYN_FALSE);
}

TEST_F(Null, PlaceForALineOrAnAnswerOfAStreamIsRefused)
{
    const TempDir dir;
    write_file(dir / "f", "ab");
    PSP_FILE_STREAM stream = psp_fopen((dir / "f").c_str(), "r", PSP_FILE_MODE_UTF8);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(psp_fgets(nullptr, 10, stream), nullptr);
    EXPECT_EQ(psp_fputs(nullptr, stream), -1);
    EXPECT_EQ(psp_fIsATTY(stream, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fgetc(stream), 'a') << "nothing was read";
    psp_fclose(stream);
}

TEST_F(Null, PoolDoesNothing)
{
    int object = 5;
    EXPECT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              eINVNULLARG);
    EXPECT_EQ(psp_poolGetMem(nullptr, 8, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__), nullptr);
    psp_poolPut(nullptr, &object);
    psp_poolSetMaxPooled(nullptr, 1);
    psp_poolDestroy(nullptr);
    EXPECT_EQ(object, 5);
}

TEST_F(Null, ObjectIsNotPutIntoAPool)
{
    PSP_POOL pool = nullptr;
    ASSERT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr,
                               nullptr, &pool),
              sOKAY);
    psp_poolPut(pool, nullptr);
    const std::size_t before = used();
    void* object = psp_poolGetMem(pool, 8, PSP_MEM_COPY, nullptr, __FILE__, __LINE__);
    EXPECT_NE(object, nullptr) << "without data to copy the contents are left alone";
    EXPECT_GT(used(), before) << "a new one: none was idle";
    psp_poolPut(pool, object);
    psp_poolDestroy(pool);
}

TEST_F(Null, PoolOfAStoppedLibraryDoesNothing)
{
    PSP_POOL pool = nullptr;
    ASSERT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr,
                               nullptr, &pool),
              sOKAY);
    void* object = psp_poolGetMem(pool, 8, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
    ASSERT_NE(object, nullptr);
    psp_term(); // frees them both
    EXPECT_EQ(psp_poolGetMem(pool, 8, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__), nullptr);
    psp_poolPut(pool, object);
    psp_poolSetMaxPooled(pool, 1);
    psp_poolDestroy(pool);
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(Null, PlaceForATagABlockOrTheirUseIsRefused)
{
    const std::size_t before = used();
    EXPECT_EQ(psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, nullptr, __FILE__,
                                 __LINE__),
              eINVNULLARG);
    EXPECT_EQ(psp_getMem_rc(8, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, nullptr, nullptr, __FILE__, __LINE__),
              eINVNULLARG);
    EXPECT_EQ(psp_extendMem_rc(nullptr, 8, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, 0, nullptr, nullptr,
                               __FILE__, __LINE__),
              eINVNULLARG);
    EXPECT_EQ(psp_getTagMemInfo(PSP_GLOBAL_TAG, nullptr), ePSP_FAILURE);
    EXPECT_EQ(used(), before);
}

TEST_F(Null, TextHasNoWords)
{
    const char* none = "";
    const char** words = &none;
    uint32_t count = 5;
    EXPECT_EQ(psp_tokenize(nullptr, ",", &words, &count, 1, PSP_GLOBAL_TAG), sOKAY);
    EXPECT_EQ(words, nullptr);
    EXPECT_EQ(count, 0u);
}

TEST_F(Null, TextIsNoNumber)
{
    int64_t i64 = 5;
    int32_t i32 = 5;
    uint64_t u64 = 5;
    uint32_t u32 = 5;
    EXPECT_EQ(psp_atoi64(nullptr, &i64), eINVSTRING);
    EXPECT_EQ(psp_atoi32(nullptr, &i32), eINVSTRING);
    EXPECT_EQ(psp_atoui64(nullptr, &u64), eINVSTRING);
    EXPECT_EQ(psp_atoui32(nullptr, &u32), eINVSTRING);
    EXPECT_TRUE(i64 == 5 && i32 == 5 && u64 == 5 && u32 == 5);
}

TEST_F(Null, BinaryStreamIsDestroyedWithoutEffect)
{
    psp_inputBuffDestroy(nullptr);
    psp_outputBuffDestroy(nullptr);
}

TEST_F(Null, LocaleIsFreedWithoutEffect)
{
    psp_freelocale(nullptr);
}

TEST_F(Null, PlaceForTheKindOfAnEntryIsLeftOut)
{
    const TempDir dir;
    write_file(dir / "f", "");
    PSP_DIR scan = psp_pathOpen(dir.c_str(), "f");
    ASSERT_NE(scan, nullptr);
    EXPECT_STREQ(psp_pathNext(scan, nullptr), "f");
    EXPECT_EQ(psp_pathNext(scan, nullptr), nullptr);
    psp_pathClose(scan);
    EXPECT_EQ(psp_pathNext(nullptr, nullptr), nullptr);
    psp_pathClose(nullptr);
}

TEST_F(Null, TypeThatIsNoneAlignsNothing)
{
    EXPECT_EQ(psp_align(13, static_cast<ALIGN_TYPE>(7)), 13u);
}

} // namespace

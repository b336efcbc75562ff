// The registry of named globals as a caller of the shared library sees it.
#include "support/mem_test.h"

#include "psp/global.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

// What the callbacks saw. A block starts with the pointer to the name it was made for.
std::vector<std::string> created;
std::vector<std::string> deleted;
const char* next_name = "";
ZYN_RETCODE create_result = sOKAY;
bool was_zero = false;
std::size_t next_size = sizeof(char*);

ZYN_RETCODE create(void* block)
{
    was_zero = holds(block, next_size, 0);
    *static_cast<const char**>(block) = next_name;
    created.emplace_back(next_name);
    return create_result;
}

void remove(void* block)
{
    deleted.emplace_back(*static_cast<const char**>(block));
}

// A copy of a name that lives as long as any block.
const char* keep(const std::string& name)
{
    static std::set<std::string> kept;
    return kept.insert(name).first->c_str();
}

void* make(const char* name, std::size_t size = sizeof(char*))
{
    next_name = keep(name);
    next_size = size;
    void* block = nullptr;
    EXPECT_EQ(psp_globalGet(name, size, create, remove, &block), sOKAY);
    return block;
}

void forget()
{
    created.clear();
    deleted.clear();
    create_result = sOKAY;
}

class NamedGlobal : public PspTest {
  protected:
    void SetUp() override
    {
        forget();
        PspTest::SetUp();
    }
};

class NamedGlobalWithoutStart : public RawTest {
  protected:
    void SetUp() override
    {
        forget();
        RawTest::SetUp();
    }
};

using Names = std::vector<std::string>;

TEST_F(NamedGlobal, IsAZeroFilledBlockThatItsCallbackPrepares)
{
    for (const std::size_t size : {8u, 100u, 8192u, 100000u}) {
        const std::string name = "block" + std::to_string(size);
        auto* block = static_cast<char*>(make(name.c_str(), size));
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(was_zero);
        EXPECT_EQ(*reinterpret_cast<const char**>(block), next_name) << "what the callback wrote";
        EXPECT_TRUE(holds(block + 8, size - 8, 0));
    }
    EXPECT_EQ(created.size(), 4u);
}

TEST_F(NamedGlobal, IsMadeOnceAndFoundAgain)
{
    void* block = make("twice");
    EXPECT_EQ(created, Names{"twice"});
    // Size and callbacks of the second call do not count.
    void* again = nullptr;
    EXPECT_EQ(psp_globalGet("twice", 100000, create, nullptr, &again), sOKAY);
    EXPECT_EQ(again, block);
    again = nullptr;
    EXPECT_EQ(psp_globalGet("twice", 1, nullptr, nullptr, &again), sOKAY);
    EXPECT_EQ(again, block);
    EXPECT_EQ(created, Names{"twice"});
    psp_term();
    EXPECT_EQ(deleted, Names{"twice"}) << "the first call's callback";
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(NamedGlobal, KeepsACopyOfItsName)
{
    char name[] = "before";
    void* block = nullptr;
    ASSERT_EQ(psp_globalGet(name, 8, nullptr, nullptr, &block), sOKAY);
    std::strcpy(name, "AFTER!");
    void* again = nullptr;
    ASSERT_EQ(psp_globalGet("before", 8, nullptr, nullptr, &again), sOKAY);
    EXPECT_EQ(again, block);
    ASSERT_EQ(psp_globalGet(name, 8, nullptr, nullptr, &again), sOKAY);
    EXPECT_NE(again, block);
}

TEST_F(NamedGlobal, NeedsNoCallbacks)
{
    void* block = nullptr;
    ASSERT_EQ(psp_globalGet("plain", 40, nullptr, nullptr, &block), sOKAY);
    EXPECT_TRUE(holds(block, 40, 0));
    ASSERT_EQ(psp_globalGet("", 40, nullptr, nullptr, &block), sOKAY) << "an empty name is a name";
}

TEST_F(NamedGlobal, NeedsASizeANameAndAPlaceForTheResult)
{
    void* block = &block;
    EXPECT_EQ(psp_globalGet("x", 0, create, remove, &block), eINVNULLARG);
    EXPECT_EQ(psp_globalGet(nullptr, 8, create, remove, &block), eINVNULLARG);
    EXPECT_EQ(psp_globalGet("x", 8, create, remove, nullptr), eINVNULLARG);
    EXPECT_EQ(block, &block);
    make("there");
    EXPECT_EQ(psp_globalGet("there", 0, create, remove, &block), eINVNULLARG)
        << "also when the name exists";
    EXPECT_EQ(created, Names{"there"});
}

TEST_F(NamedGlobal, WhoseCallbackFailsIsNotThere)
{
    const std::size_t before = info_of(PSP_GLOBAL_TAG).used.current;
    make("other");
    const std::size_t with_other = info_of(PSP_GLOBAL_TAG).used.current;
    EXPECT_GT(with_other, before);
    for (const ZYN_RETCODE code : {eFILEOPEN, sNOTFOUND, ePSP_FAILURE}) {
        create_result = code;
        next_name = "broken";
        void* block = &block;
        EXPECT_EQ(psp_globalGet("broken", 8, create, remove, &block), eNOMEMORY)
            << "whatever the callback returned";
        EXPECT_EQ(block, &block);
        EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, with_other);
    }
    EXPECT_TRUE(deleted.empty());
    create_result = sOKAY;
    EXPECT_NE(make("broken"), nullptr) << "the next call makes it anew";
    psp_term();
    EXPECT_EQ(deleted, (Names{"other", "broken"}));
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(NamedGlobal, WhoseCallbackFailsInTheMiddleLeavesTheOthers)
{
    void* a = make("a");
    void* c = make("c");
    create_result = eRANGE;
    void* block = nullptr;
    for (const char* name : {"0", "b", "d"})
        EXPECT_EQ(psp_globalGet(name, 8, create, remove, &block), eNOMEMORY);
    create_result = sOKAY;
    EXPECT_EQ(make("a"), a);
    EXPECT_EQ(make("c"), c);
    psp_term();
    EXPECT_EQ(deleted, (Names{"c", "a"}));
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(NamedGlobal, OfImpossibleSizeFails)
{
    void* block = nullptr;
    EXPECT_EQ(psp_globalGet("huge", SIZE_MAX, create, remove, &block), eNOMEMORY);
    EXPECT_EQ(psp_globalGet("huge", std::size_t{1} << 32, create, remove, &block), eNOMEMORY);
    EXPECT_TRUE(created.empty()) << "there is no block to prepare";
    EXPECT_NE(make("huge"), nullptr);
}

TEST_F(NamedGlobal, IsDeletedAtStopFromTheGreatestNameToTheSmallest)
{
    // In the order of bytes: capitals before small letters, and those above 0x7F last.
    Names names{"b", "a", "B", "", "ab", "\xC3\xA9t\xC3\xA9", "abc", "zz", "\xFF", "Z", "10", "9"};
    for (const std::string& name : names)
        make(name.c_str());
    psp_term();
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::strcmp(a.c_str(), b.c_str()) > 0;
    });
    EXPECT_EQ(names.front(), "\xFF");
    EXPECT_EQ(deleted, names);
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(NamedGlobal, IsFoundAmongManyInWhateverOrderTheyCame)
{
    std::mt19937 random(3);
    Names names;
    for (int i = 0; i < 300; i++)
        names.push_back("name" + std::to_string(random() % 100000) + "-" + std::to_string(i));
    std::vector<void*> blocks;
    for (const std::string& name : names) {
        blocks.push_back(make(name.c_str()));
        for (std::size_t i = 0; i < blocks.size(); i += 1 + blocks.size() / 7) {
            void* found = nullptr;
            ASSERT_EQ(psp_globalGet(names[i].c_str(), 8, create, remove, &found), sOKAY);
            ASSERT_EQ(found, blocks[i]);
        }
    }
    EXPECT_EQ(created.size(), names.size());
    for (std::size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(make(names[i].c_str()), blocks[i]);
    psp_term();
    std::sort(names.rbegin(), names.rend());
    EXPECT_EQ(deleted, names);
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(NamedGlobal, IsMadeAnewAfterStopAndStart)
{
    make("again");
    psp_term();
    ASSERT_EQ(psp_init(), sOKAY);
    forget();
    make("again");
    EXPECT_EQ(created, Names{"again"});
    EXPECT_TRUE(was_zero);
}

TEST_F(NamedGlobal, StaysUntilTheLastStop)
{
    ASSERT_EQ(psp_init(), sOKAY);
    void* block = make("counted");
    psp_term();
    EXPECT_TRUE(deleted.empty());
    EXPECT_EQ(make("counted"), block);
}

TEST_F(NamedGlobal, IsOneForAllThreads)
{
    void* blocks[4] = {};
    std::vector<std::thread> threads;
    for (void*& block : blocks)
        threads.emplace_back(
            [&block] { EXPECT_EQ(psp_globalGet("shared", 64, nullptr, nullptr, &block), sOKAY); });
    for (std::thread& thread : threads)
        thread.join();
    for (void* block : blocks)
        EXPECT_EQ(block, blocks[0]);
}

TEST_F(NamedGlobalWithoutStart, IsRefusedAnyNumberOfTimes)
{
    for (int round = 0; round < 2; round++) {
        for (int i = 0; i < 20; i++) {
            void* block = nullptr;
            const ZYN_RETCODE code = psp_globalGet("early", 8, create, remove, &block);
            EXPECT_NE(code, sOKAY);
            EXPECT_NE(code, eINVNULLARG);
            EXPECT_EQ(block, nullptr);
            EXPECT_EQ(psp_globalGet("early", 0, create, remove, &block), eINVNULLARG);
            EXPECT_EQ(psp_globalGet(nullptr, 8, create, remove, &block), eINVNULLARG);
            EXPECT_EQ(psp_globalGet("early", 8, create, remove, nullptr), eINVNULLARG);
        }
        EXPECT_TRUE(created.empty());
        EXPECT_TRUE(deleted.empty());
        ASSERT_EQ(psp_init(), sOKAY); // and the same after a stop
        make("started");
        psp_term();
        EXPECT_EQ(deleted, Names{"started"});
        forget();
    }
}

} // namespace

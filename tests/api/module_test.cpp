// Loading shared libraries by module name. The modules of the test stand on the search path of
// this program (see CMakeLists.txt).
#include "support/psp_test.h"

#include "psp/module.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include <dlfcn.h>

using namespace psptest;

namespace {

constexpr const char* module_name = "psptest_module";

class Module : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        // The calling thread's tag is made now, and not inside what a test measures.
        psp_freeMem(psp_getMem(1, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), PSP_THREAD_TAG,
                    __FILE__, __LINE__);
    }
};
class ModuleWithoutLibrary : public RawTest {};

std::size_t used_by(PSP_MEMTAG tag)
{
    PSP_TAG_MEM_INFO info{};
    EXPECT_EQ(psp_getTagMemInfo(tag, &info), sOKAY);
    return info.used.current;
}

bool is_loaded(const char* file)
{
    void* const handle = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr)
        return false;
    dlclose(handle);
    return true;
}

PSP_MOD_CTX* const untouched = reinterpret_cast<PSP_MOD_CTX*>(std::uintptr_t{0x1234});

void expect_not_found(const char* name)
{
    const std::size_t global = used_by(PSP_GLOBAL_TAG);
    const std::size_t thread = used_by(PSP_THREAD_TAG);
    PSP_MOD_CTX* module = untouched;
    EXPECT_EQ(psp_load(name, &module), sNOTFOUND) << name;
    EXPECT_EQ(module, untouched);
    EXPECT_EQ(used_by(PSP_GLOBAL_TAG), global);
    EXPECT_EQ(used_by(PSP_THREAD_TAG), thread);
}

TEST_F(Module, IsLoadedByItsNameAndGivesItsFunctions)
{
    char name[] = "psptest_module";
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load(name, &module), sOKAY);
    ASSERT_NE(module, nullptr);
    EXPECT_NE(module->OSData, nullptr);
    std::memset(name, 'x', sizeof name - 1);
    EXPECT_STREQ(module->name, module_name) << "a copy";
    EXPECT_TRUE(is_loaded("libpsptest_module.so"));

    VOID_FCN address = nullptr;
    ASSERT_EQ(psp_getFcnAddr(module, "psptest_store", &address), sOKAY);
    ASSERT_NE(address, nullptr);
    int number = 0;
    address(&number);
    EXPECT_EQ(number, 4711);

    ASSERT_EQ(psp_getFcnAddr(module, "psptest_answer", &address), sOKAY);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(reinterpret_cast<std::uintptr_t>(address))(), 42);
    EXPECT_EQ(psp_unload(module), sOKAY);
}

TEST_F(Module, GivesANullAddressForASymbolThatItLacks)
{
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load(module_name, &module), sOKAY);
    for (const char* symbol : {"psptest_nothing", "", "psptest_answe", "psptest_answer "}) {
        auto address = reinterpret_cast<VOID_FCN>(std::uintptr_t{0x1234});
        EXPECT_EQ(psp_getFcnAddr(module, symbol, &address), sOKAY);
        EXPECT_EQ(address, nullptr) << symbol;
    }
    EXPECT_EQ(psp_unload(module), sOKAY);
}

TEST_F(Module, GivesANullAddressWithoutAModuleOrAName)
{
    auto address = reinterpret_cast<VOID_FCN>(std::uintptr_t{0x1234});
    EXPECT_EQ(psp_getFcnAddr(nullptr, "psptest_answer", &address), sOKAY);
    EXPECT_EQ(address, nullptr);
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load(module_name, &module), sOKAY);
    address = reinterpret_cast<VOID_FCN>(std::uintptr_t{0x1234});
    EXPECT_EQ(psp_getFcnAddr(module, nullptr, &address), sOKAY);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(psp_unload(module), sOKAY);
    const PSP_MOD_CTX without_library = {module_name, nullptr};
    address = reinterpret_cast<VOID_FCN>(std::uintptr_t{0x1234});
    EXPECT_EQ(psp_getFcnAddr(&without_library, "psptest_answer", &address), sOKAY);
    EXPECT_EQ(address, nullptr);
}

TEST_F(Module, UnloadedIsGoneButItsContextStays)
{
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load(module_name, &module), sOKAY);
    const std::size_t loaded = used_by(PSP_GLOBAL_TAG);
    void* const record = module->OSData;
    EXPECT_EQ(psp_unload(module), sOKAY);
    EXPECT_FALSE(is_loaded("libpsptest_module.so"));
    EXPECT_LT(used_by(PSP_GLOBAL_TAG), loaded) << "the platform's record is freed";
    EXPECT_STREQ(module->name, module_name);
    EXPECT_EQ(module->OSData, record);
}

TEST_F(Module, LoadedTwiceIsThereUntilBothAreUnloaded)
{
    PSP_MOD_CTX* first = nullptr;
    PSP_MOD_CTX* second = nullptr;
    ASSERT_EQ(psp_load(module_name, &first), sOKAY);
    ASSERT_EQ(psp_load(module_name, &second), sOKAY);
    EXPECT_NE(first, second);
    EXPECT_EQ(psp_unload(first), sOKAY);
    EXPECT_TRUE(is_loaded("libpsptest_module.so"));
    VOID_FCN address = nullptr;
    EXPECT_EQ(psp_getFcnAddr(second, "psptest_answer", &address), sOKAY);
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(psp_unload(second), sOKAY);
    EXPECT_FALSE(is_loaded("libpsptest_module.so"));
}

TEST_F(Module, ThatIsMissingIsNotFound)
{
    expect_not_found("psptest_no_such_module");
    expect_not_found("");
    expect_not_found("libpsptest_module");
    expect_not_found("psptest_module.so");
    expect_not_found(std::string(5000, 'x').c_str());
    expect_not_found("%s%n");
}

TEST_F(Module, WithAnUnboundSymbolIsNotFound)
{
    expect_not_found("psptest_unbound");
}

TEST_F(Module, OfABrokenFileIsNotFound)
{
    const TempDir dir;
    std::filesystem::create_directory(dir / "lib");
    write_file(dir / "lib/broken.so", "no library");
    EXPECT_EQ(run_in_child([&] {
                  if (chdir(dir.c_str()) != 0)
                      return 1;
                  expect_not_found("/broken"); // a path with a slash is taken as it is
                  return 0;
              }),
              0);
}

TEST_F(Module, NeedsAPlaceAndAName)
{
    EXPECT_EQ(psp_load(module_name, nullptr), eINVNULLARG);
    PSP_MOD_CTX* module = untouched;
    const std::size_t global = used_by(PSP_GLOBAL_TAG);
    EXPECT_EQ(psp_load(nullptr, &module), eNOMEMORY);
    EXPECT_EQ(module, untouched);
    EXPECT_EQ(used_by(PSP_GLOBAL_TAG), global);
}

TEST_F(Module, WithoutALoadedLibraryCannotBeUnloaded)
{
    const PSP_MOD_CTX empty = {"empty", nullptr};
    EXPECT_EQ(psp_unload(&empty), eINVNULLARG);
    EXPECT_EQ(psp_unload(nullptr), eINVNULLARG);
}

TEST_F(ModuleWithoutLibrary, NothingIsLoaded)
{
    PSP_MOD_CTX* module = untouched;
    EXPECT_EQ(psp_load(module_name, &module), eNOMEMORY);
    EXPECT_EQ(module, untouched);
    EXPECT_FALSE(is_loaded("libpsptest_module.so"));
}

} // namespace

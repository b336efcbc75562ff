// Measurements are saved to a file and loaded into a map that lives in a tag.
#include "psp.hpp"

#include <map>
#include <memory_resource>
#include <new>
#include <string>

namespace {

using Measurements = std::pmr::map<std::pmr::string, double, std::less<>>;

// A file as the transport of binary streams.
struct Transport {
    psp::file& file;

    ZYN_RETCODE operator()(const void* data, uint32_t size) noexcept
    {
        return file.write(data, size) == size ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{eBADWRITE};
    }
    ZYN_RETCODE operator()(void* buf, uint32_t size, uint32_t* len) noexcept
    {
        *len = file.read(buf, size);
        return *len != 0 ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{eEOD};
    }
};

ZYN_RETCODE save(psp::file& file)
{
    Transport transport{file};
    psp::binary_writer out = psp::binary_writer::create(transport);
    if (!out)
        return eNOMEMORY;
    const struct {
        const char* place;
        double degrees;
    } rows[] = {{"roof", 11.5}, {"cellar", 9.25}, {"hall", 20}};
    for (const auto& row : rows) {
        ZYN_RETCODE rc = out.put_string(row.place);
        if (rc == sOKAY)
            rc = out.put_double(row.degrees);
        if (rc != sOKAY)
            return rc;
    }
    return out.flush();
}

ZYN_RETCODE load(psp::file& file, PSP_MEMTAG tag, Measurements& measurements)
{
    Transport transport{file};
    psp::binary_reader in = psp::binary_reader::create(transport);
    if (!in)
        return eNOMEMORY;
    ZYN_RETCODE rc;
    psp::string place;
    while ((rc = in.get_string(tag, place)) == sOKAY) {
        double degrees = 0;
        rc = in.get_double(degrees);
        if (rc != sOKAY)
            return rc;
        measurements.emplace(place.view(), degrees);
    }
    return rc == eEOD ? ZYN_RETCODE{sOKAY} : rc;
}

ZYN_RETCODE run()
{
    psp::temporary_file temporary = psp::temporary_file::create("measured");
    if (!temporary)
        return eFILEOPEN;
    ZYN_RETCODE rc = save(temporary.file());
    if (rc != sOKAY)
        return rc;
    temporary.file().seek(0, SEEK_SET);

    psp::tag tag = psp::tag::create();
    psp::memory_resource resource(tag);
    Measurements measurements(&resource);
    rc = load(temporary.file(), tag.native(), measurements);
    for (const auto& [place, degrees] : measurements)
        psp_printf("%-6s %5.2f\n", place.c_str(), degrees);
    return rc;
} // the map, its tag and the file go here, in this order

} // namespace

int main()
{
    ZYN_RETCODE rc;
    const psp::library started = psp::library::start(&rc);
    try {
        if (started)
            rc = run();
    } catch (const std::bad_alloc&) {
        rc = eNOMEMORY;
    }
    if (rc != sOKAY)
        psp_printf("%s\n", psp::error(rc).message().c_str());
    return rc == sOKAY ? 0 : 1;
}

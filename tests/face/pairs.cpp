// Pairs of functions that do the same, one with the calls of the C interface and one through the
// C++ face. same_code.py compiles them and compares what the compiler made of each pair.
#include "psp.hpp"

#include <mutex>

#include <fcntl.h>

// The two of a pair hold their handles in the same way, and call from lines of the same number.
extern "C" {

struct Plain {
    PSP_SEM sem;
    PSP_FH file;
    PSP_MEMTAG tag;
    PSP_RAND random;
    PSP_OUTPUTBUFF writer;
    PSP_INPUTBUFF reader;
    PSP_FILE_STREAM stream;
    PSP_POOL pool;
    int count;
};

void plain_mutex_lock(Plain& p)
{
    psp_syncEnterExcl(p.sem);
}

void plain_mutex_unlock(Plain& p)
{
    psp_syncExitExcl(p.sem);
}

void plain_mutex_guard(Plain& p)
{
    psp_syncEnterExcl(p.sem);
    ++p.count;
    psp_syncExitExcl(p.sem);
}

void plain_event_signal(Plain& p)
{
    psp_syncResume(p.sem);
}

void plain_event_clear(Plain& p)
{
    psp_syncStart(p.sem);
}

int plain_event_wait(Plain& p)
{
    return psp_syncWait(p.sem, 100);
}

uint32_t plain_file_read(Plain& p, void* buf)
{
    return psp_fileRead(p.file, buf, 100);
}

uint32_t plain_file_write(Plain& p, const void* buf)
{
    return psp_fileWrite(p.file, buf, 100);
}

uint32_t plain_file_read_at(Plain& p, void* buf)
{
    return psp_fileSeekRead(p.file, 4096, buf, 100);
}

uint32_t plain_file_write_at(Plain& p, const void* buf)
{
    return psp_fileSeekWrite(p.file, 4096, buf, 100);
}

int plain_file_sync(Plain& p)
{
    return psp_fileSync(p.file);
}

// Opens, looks, uses and closes.
uint32_t plain_file_scope(const char* name, void* buf)
{
    PSP_FH file = psp_fileOpen(name, O_RDONLY, 0);
    if (file == nullptr)
        return 0;
    const uint32_t got = psp_fileRead(file, buf, 100);
    psp_fileClose(file);
    return got;
}

#line 1
void* plain_tag_allocate(Plain& p, size_t size)
{
    return psp_getMem(size, p.tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
}

void* plain_tag_zeroed(Plain& p, size_t size)
{
    return psp_getMem(size, p.tag, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__);
}

void plain_tag_deallocate(Plain& p, void* block)
{
    psp_freeMem(block, p.tag, __FILE__, __LINE__);
}

void* plain_tag_extend(Plain& p, void* block)
{
    return psp_extendMem(block, 200, p.tag, PSP_MEM_PLAIN, 0, nullptr, __FILE__, __LINE__);
}

void* plain_pool_get(Plain& p)
{
    return psp_poolGetMem(p.pool, 100, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
}

void plain_pool_put(Plain& p, void* object)
{
    psp_poolPut(p.pool, object);
}

uint32_t plain_random_draw(Plain& p)
{
    return psp_randGetUInt32(p.random);
}

uint64_t plain_random_draw64(Plain& p)
{
    return psp_randGetUInt64(p.random);
}

int plain_binary_put(Plain& p, int32_t value)
{
    return psp_outputBuffPutInt32(p.writer, value);
}

int plain_binary_put_bytes(Plain& p, const void* data)
{
    return psp_outputBuffPutBytes(p.writer, data, 100);
}

int plain_binary_get(Plain& p, int32_t* value)
{
    return psp_inputBuffGetInt32(p.reader, value);
}

int plain_binary_get_bytes(Plain& p, void* data)
{
    return psp_inputBuffGetBytes(p.reader, data, 100);
}

int plain_stream_read_byte(Plain& p)
{
    return psp_fgetc(p.stream);
}

int plain_stream_write_byte(Plain& p, int byte)
{
    return psp_fputc(byte, p.stream);
}

// ---- The same through the face ----

struct Face {
    union Semaphore {
        psp::mutex mutex;
        psp::event event;
    } sem;
    psp::file file;
    psp::tag tag;
    psp::random random;
    psp::binary_writer writer;
    psp::binary_reader reader;
    psp::stream stream;
    psp::pool pool;
    int count;
};

void face_mutex_lock(Face& f)
{
    f.sem.mutex.lock();
}

void face_mutex_unlock(Face& f)
{
    f.sem.mutex.unlock();
}

void face_mutex_guard(Face& f)
{
    const std::lock_guard<psp::mutex> guard(f.sem.mutex);
    ++f.count;
}

void face_event_signal(Face& f)
{
    f.sem.event.signal();
}

void face_event_clear(Face& f)
{
    f.sem.event.clear();
}

int face_event_wait(Face& f)
{
    return f.sem.event.wait(100);
}

uint32_t face_file_read(Face& f, void* buf)
{
    return f.file.read(buf, 100);
}

uint32_t face_file_write(Face& f, const void* buf)
{
    return f.file.write(buf, 100);
}

uint32_t face_file_read_at(Face& f, void* buf)
{
    return f.file.read_at(4096, buf, 100);
}

uint32_t face_file_write_at(Face& f, const void* buf)
{
    return f.file.write_at(4096, buf, 100);
}

int face_file_sync(Face& f)
{
    return f.file.sync();
}

uint32_t face_file_scope(const char* name, void* buf)
{
    psp::file file = psp::file::open(name, O_RDONLY);
    if (!file)
        return 0;
    return file.read(buf, 100);
}

#line 1
void* face_tag_allocate(Face& f, size_t size)
{
    return f.tag.allocate(size);
}

void* face_tag_zeroed(Face& f, size_t size)
{
    return f.tag.allocate_zeroed(size);
}

void face_tag_deallocate(Face& f, void* block)
{
    f.tag.deallocate(block);
}

void* face_tag_extend(Face& f, void* block)
{
    return f.tag.extend(block, 200);
}

void* face_pool_get(Face& f)
{
    return f.pool.get(100);
}

void face_pool_put(Face& f, void* object)
{
    f.pool.put(object);
}

uint32_t face_random_draw(Face& f)
{
    return f.random();
}

uint64_t face_random_draw64(Face& f)
{
    return f.random.next64();
}

int face_binary_put(Face& f, int32_t value)
{
    return f.writer.put_int32(value);
}

int face_binary_put_bytes(Face& f, const void* data)
{
    return f.writer.put_bytes(data, 100);
}

int face_binary_get(Face& f, int32_t* value)
{
    return f.reader.get_int32(*value);
}

int face_binary_get_bytes(Face& f, void* data)
{
    return f.reader.get_bytes(data, 100);
}

int face_stream_read_byte(Face& f)
{
    return f.stream.read_byte();
}

int face_stream_write_byte(Face& f, int byte)
{
    return f.stream.write_byte(byte);
}
}

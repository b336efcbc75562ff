// Files as the system keeps them, in memory: names that lead to files, and open files with an
// offset of their own. A file lives as long as a name or an open file leads to it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>

struct FileModel {
    std::string bytes;
    const void* locked_by = nullptr; // an open file

    void resize(std::size_t size)
    {
        bytes.resize(size, '\0');
    }
    // Lengthens the file with zeros where the place lies behind its end.
    void put(std::size_t at, std::string_view data)
    {
        if (bytes.size() < at + data.size())
            resize(at + data.size());
        bytes.replace(at, data.size(), data);
    }
    std::string get(std::uint64_t at, std::size_t size) const
    {
        return at < bytes.size() ? bytes.substr(at, size) : "";
    }
};

using FileRef = std::shared_ptr<FileModel>;

// One open file.
struct OpenModel {
    FileRef file;
    bool readable;
    bool writable;
    bool append;
    std::uint64_t offset = 0;

    void write(std::string_view data)
    {
        if (append)
            offset = file->bytes.size();
        file->put(offset, data);
        offset += data.size();
    }
    // Under O_APPEND the system takes every write to the end, whatever place it was given.
    void write_at(std::uint64_t at, std::string_view data)
    {
        file->put(append ? file->bytes.size() : at, data);
    }
    std::string read(std::size_t size)
    {
        std::string data = file->get(offset, size);
        offset += data.size();
        return data;
    }
    // False where there is no such place, and then nothing moves.
    bool seek(std::int64_t distance, int origin)
    {
        if (origin < SEEK_SET || origin > SEEK_END)
            return false;
        const std::size_t bases[] = {0, offset, file->bytes.size()};
        const auto base = static_cast<std::int64_t>(bases[origin]);
        if (distance < -base)
            return false;
        offset = static_cast<std::uint64_t>(base + distance);
        return true;
    }
    bool lock()
    {
        if (file->locked_by != nullptr && file->locked_by != this)
            return false;
        file->locked_by = this;
        return true;
    }
    void unlock()
    {
        if (file->locked_by == this)
            file->locked_by = nullptr;
    }
};

// The names of one directory. There is also the directory "d", which is not empty.
class NamesModel {
  public:
    static bool is_directory(const std::string& name)
    {
        return name == "d";
    }

    FileRef find(const std::string& name) const
    {
        const auto entry = files_.find(name);
        return entry == files_.end() ? nullptr : entry->second;
    }
    bool exists(const std::string& name) const
    {
        return is_directory(name) || find(name) != nullptr;
    }
    // Whether a file of that name can be: what stands before a '/' must be the directory.
    static bool has_place(const std::string& name)
    {
        return name.find('/') == std::string::npos || name.compare(0, 2, "d/") == 0;
    }
    // Whether the place is none because a file stands before the '/'.
    bool is_below_file(const std::string& name) const
    {
        const std::size_t slash = name.find('/');
        return slash != std::string::npos && find(name.substr(0, slash)) != nullptr;
    }

    // Nothing where the system refuses.
    std::unique_ptr<OpenModel> open(const std::string& name, std::uint32_t flags)
    {
        const bool truncate = (flags & O_TRUNC) != 0;
        const bool create = truncate || (flags & O_CREAT) != 0;
        FileRef file = find(name);
        if (is_directory(name) || !has_place(name) || (file == nullptr && !create) ||
            (file != nullptr && create && (flags & O_EXCL) != 0))
            return nullptr;
        if (file == nullptr)
            file = files_[name] = std::make_shared<FileModel>();
        if (truncate)
            file->resize(0);
        const std::uint32_t access = flags & O_ACCMODE;
        return std::make_unique<OpenModel>(
            OpenModel{file, access != O_WRONLY, access != O_RDONLY, (flags & O_APPEND) != 0});
    }

    // Whether the name is free afterwards.
    bool remove(const std::string& name)
    {
        files_.erase(name);
        return !is_directory(name) && !is_below_file(name);
    }
    void rename(const std::string& from, const std::string& to)
    {
        FileRef file = find(from);
        files_.erase(from);
        files_[to] = std::move(file);
    }

    const std::map<std::string, FileRef>& all() const
    {
        return files_;
    }

  private:
    std::map<std::string, FileRef> files_;
};

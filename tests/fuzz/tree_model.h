// A directory tree by name alone, as the operating system would see it: which names lead where,
// and what making and removing directories comes to.
#pragma once

#include <cerrno>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Names inside the tree are written "/a/b"; its top is "". `top` is where the tree really lies.
class TreeModel {
  public:
    explicit TreeModel(std::string top) : top_(std::move(top)) {}

    void add_file(const std::string& inside)
    {
        entries_[inside] = false;
    }

    // What a path comes to: an errno, or 0 and the place inside the tree.
    struct Found {
        int error;
        std::string place;
    };
    Found find(const std::string& path) const
    {
        if (path.empty())
            return {ENOENT, {}};
        const Parsed parsed = parse(path);
        Found found = walk(parsed, parsed.parts.size());
        if (found.error == 0 && parsed.slash_behind && !is_dir(found.place))
            found.error = ENOTDIR;
        return found;
    }

    int make_dir(const std::string& path)
    {
        if (path.empty())
            return ENOENT;
        const Parsed parsed = parse(path);
        if (parsed.parts.empty())
            return EEXIST;
        const Found parent = walk_to_parent(parsed);
        if (parent.error != 0)
            return parent.error;
        const std::string& name = parsed.parts.back();
        if (name == "." || exists(parent.place + "/" + name))
            return EEXIST;
        entries_[parent.place + "/" + name] = true;
        return 0;
    }

    int remove_dir(const std::string& path)
    {
        if (path.empty())
            return ENOENT;
        const Parsed parsed = parse(path);
        if (parsed.parts.empty())
            return ENOTEMPTY; // the top, which keeps something in it
        const Found parent = walk_to_parent(parsed);
        if (parent.error != 0)
            return parent.error;
        if (parsed.parts.back() == ".")
            return EINVAL;
        const std::string place = parent.place + "/" + parsed.parts.back();
        if (!exists(place))
            return ENOENT;
        if (!is_dir(place))
            return ENOTDIR;
        if (!children(place).empty())
            return ENOTEMPTY;
        entries_.erase(place);
        return 0;
    }

    bool is_dir(const std::string& place) const
    {
        const auto entry = entries_.find(place);
        return place.empty() || (entry != entries_.end() && entry->second);
    }

    // Name, and whether it is a directory.
    std::map<std::string, bool> children(const std::string& place) const
    {
        std::map<std::string, bool> result;
        for (const auto& [name, isdir] : entries_)
            if (const auto slash = name.rfind('/'); name.substr(0, slash) == place)
                result[name.substr(slash + 1)] = isdir;
        return result;
    }

    void enter(const std::string& place)
    {
        current_ = place;
    }
    // The current directory as the system writes it.
    std::string current() const
    {
        return top_ + current_;
    }
    const std::string& current_place() const
    {
        return current_;
    }

  private:
    struct Parsed {
        std::string start; // where the walk begins
        bool slash_behind;
        std::vector<std::string> parts; // "." included
    };

    bool exists(const std::string& place) const
    {
        return place.empty() || entries_.count(place) != 0;
    }

    Parsed parse(const std::string& path) const
    {
        const bool absolute = path.compare(0, top_.size(), top_) == 0;
        Parsed parsed{absolute ? "" : current_, !path.empty() && path.back() == '/', {}};
        std::string part;
        for (const char c : path.substr(absolute ? top_.size() : 0) + "/") {
            if (c != '/')
                part += c;
            else if (!part.empty())
                parsed.parts.push_back(std::exchange(part, ""));
        }
        return parsed;
    }

    Found walk(const Parsed& parsed, std::size_t count) const
    {
        Found found{0, parsed.start};
        for (std::size_t i = 0; i < count; i++) {
            if (!is_dir(found.place))
                return {ENOTDIR, {}};
            if (parsed.parts[i] != ".")
                found.place += "/" + parsed.parts[i];
            if (!exists(found.place))
                return {ENOENT, {}};
        }
        return found;
    }

    // The last part may stay open, but it must have a directory to lie in.
    Found walk_to_parent(const Parsed& parsed) const
    {
        Found parent = walk(parsed, parsed.parts.size() - 1);
        if (parent.error == 0 && !is_dir(parent.place))
            parent.error = ENOTDIR;
        return parent;
    }

    std::string top_;
    std::string current_;
    std::map<std::string, bool> entries_; // whether each is a directory
};

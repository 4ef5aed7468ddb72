#pragma once
// Remembers, per input file, how far the command has converted it. An entry
// belongs to a file by device and inode, whatever its name is now, so a
// rotated file continues where it stopped under its old name.

#include <cstdint>
#include <string>
#include <vector>

#include "common/Status.h"

class Checkpoint {
public:
    struct Entry {
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t offset = 0;
        uint64_t nextLine = 1;  // number of the line at offset
        std::string name;       // for a person reading the file
    };

    explicit Checkpoint(const std::string& path);

    // Of the inputs named, those that exist but are not regular files: where
    // a pipe or device stopped cannot be recorded.
    static std::vector<Status> checkInputs(const std::vector<std::string>& names);

    // A missing file is an empty checkpoint; a failure when it exists but
    // cannot be read.
    Status load();
    // The entry of a file, or nullptr when it is new to the checkpoint.
    const Entry* find(uint64_t device, uint64_t inode) const;
    // Where the file `name` of `size` bytes resumes: its entry's offset and
    // line, or its beginning when new or, uncompressed, shorter than its
    // entry's offset (`note` then says so).
    Entry resumeOf(const std::string& name, uint64_t device, uint64_t inode, int64_t size,
                   bool compressed, std::string& note) const;
    // Records where a file stands after this run; entries of files not
    // recorded in this run are dropped on save, as their inode may be reused.
    void record(const Entry& entry);
    // Whether save() can write beside the file: checked before anything is
    // converted, so that a run never writes events it cannot record.
    Status checkWritable();
    // Through a temporary file and a rename, so that a crash leaves the old one.
    Status save();

private:
    std::string temporaryPath() const { return path_ + ".tmp"; }

    std::string path_;
    std::vector<Entry> loaded_;
    std::vector<Entry> recorded_;
};

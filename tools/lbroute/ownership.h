#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "lbroute/state_folder.h"

namespace lbroute {

/// The place of the routing daemon: the files that tell `lb` whom to signal.
///
/// In each namespace there is one for each family (decision/route_text.h names them), and one
/// process has them all: two that write the same routes would undo each other's work without end.
/// So a file that names another running process is never taken over. A leftover is one that holds
///
/// - no number, or one that no running process has;
/// - our own number: of a predecessor that had the same;
/// - the number of a predecessor, as the predecessor wrote it, while the process that has this
///   number by now started at another time. Numbers, start times and files of the predecessors
///   are kept in the state folder's file `instances`.
///
/// For one thread. Nothing is removed at the end of scope: what releases is a call.
class Ownership {
  public:
    struct Outcome {
        enum class Kind {
            owned,
            refused,  ///< another running process is the routing daemon
            failed    ///< a file cannot be written
        };
        Kind kind = Kind::owned;
        std::string reason;              ///< refused, failed: what stands in the way
        std::vector<std::string> notes;  ///< owned: what is to be told for all that
    };

    /// The folder is open and outlives this object. Another root than / is for tests.
    explicit Ownership(const StateFolder& folder, std::string root = "");

    /// Becomes the only instance on this state folder until this object ends; before any claim.
    Outcome begin();
    /// Writes both process number files of a namespace (empty: the default one), and makes their
    /// folders and that of the fragments. Both or none.
    Outcome claim(const std::string& namespace_name);
    /// Whether a file of a namespace that was claimed is not as it was written: removed, or
    /// somebody else's.
    bool is_disturbed(const std::string& namespace_name) const;
    /// Removes the namespace's files that still hold our number.
    void release(const std::string& namespace_name);
    void release_all();

  private:
    /// A file as it was written: another inode or time is somebody else's writing.
    struct Written {
        std::string path;
        std::uint64_t inode = 0;
        std::int64_t modified_ns = 0;

        bool operator==(const Written&) const = default;
    };
    struct Instance {
        pid_t pid = 0;
        std::string start;
        std::vector<Written> files;
    };

    static std::vector<Instance> parse_instances(const std::string& text);
    static bool is_unchanged(const Written& file);

    std::string record() const;
    void write_record(Outcome& outcome) const;
    /// Why the file cannot be taken over, or empty; what is left over in it goes to the notes.
    /// `is_patient`: one that may just be being written is waited for.
    std::string obstacle(const std::string& path, std::vector<std::string>& notes,
                         bool is_patient) const;
    bool is_predecessors(const std::string& path, pid_t named) const;
    std::string write(const std::string& path);
    void remove_ours(const std::string& path);

    const StateFolder& folder_;
    std::string root_;
    Fd lock_;
    std::set<std::string> tried_;  // namespaces that could not be claimed
    std::vector<Instance> predecessors_;
    Instance own_;
};

}  // namespace lbroute

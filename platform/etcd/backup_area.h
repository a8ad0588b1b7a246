// What reading and writing files of the backup area share: the cluster, the settings, and what there is at a name.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "client.h"
#include "manifest.h"

namespace etcd {

struct BackupSettings {
    std::string prefix;
    std::uint32_t chunk_bytes = 65536;
    int lease_s = 60;
    std::uint64_t limit_bytes = 8589934592;
    unsigned quota_share = 60;  // per cent of the limit
};

// A publication that went unanswered, or a file that was not published: what the next step on its name has to know.
struct Unpublished {
    int error = 0;
    bool unknown = false;  // it may have been published
    KeyValue from;         // what it was to replace
    std::string upload;
    std::uint64_t length = 0;
    std::uint64_t checksum = 0;
};

class BackupArea {
public:
    // let_pass is called between the steps of long transfers.
    BackupArea(Client &client, BackupSettings settings, std::function<void()> let_pass)
        : client_(client), settings_(std::move(settings)), let_pass_(std::move(let_pass))
    {
    }

    Client &client() { return client_; }
    const BackupSettings &settings() const { return settings_; }
    FileKeys keys_of(const std::string &name) const { return {settings_.prefix, name}; }
    void let_pass() const { let_pass_(); }

    // What stands at a name: found is the key's record (version 0: nothing). -EIO: what stands there is damaged.
    int look_up(const FileKeys &keys, KeyValue &found, Manifest &manifest);

    // Records a size beside the contents of a name, which stay.
    int record_size(const std::string &name, std::uint64_t size);

    std::map<std::string, Unpublished> &unpublished() { return unpublished_; }

private:
    Client &client_;
    const BackupSettings settings_;
    const std::function<void()> let_pass_;
    std::map<std::string, Unpublished> unpublished_;
};

// Whether a manifest belongs to an upload.
bool is_of_upload(const std::string &stored, const std::string &upload);

// Whether the first change of a name after a publication was begun is that publication.
enum class Published { yes, no, not_yet, unknown };
Published settle_publication(BackupArea &area, const KeyValue &from, const KeyValue &now, const std::string &upload,
                             int &error);

}  // namespace etcd

// The settings of a platform: one small file, an environment override for each value.
// docs/platform.md lists them.
#pragma once

namespace platform {

enum class TraceTarget { none, file, standard_error, system_log };

inline constexpr unsigned path_size = 256;
inline constexpr unsigned word_size = 64;
inline constexpr unsigned list_size = 400;

struct Settings {
    int controller_number = 0;
    int controller_count = 4;
    char boot_mode[word_size] = "normal";
    int master = 0;
    char address_own[word_size] = "127.0.0.1";
    int other_number = 1;
    char address_other[word_size] = "127.0.0.1";
    char nv_dir[path_size] = "/var/lib/kesta/nv";
    int nv_regions = 3;
    int nv_sync = 0;
    int allow_shared_file_system = 0;
    char status_file[path_size] = "/var/lib/kesta/status";
    char sysback_dir[path_size] = "/var/lib/kesta/sysback";
    // Of the platform that keeps both on an etcd cluster.
    char nv_endpoints[list_size] = "";
    char sysback_endpoints[list_size] = "";
    char etcd_prefix[path_size] = "/kesta/";
    char tls_ca[path_size] = "";
    char tls_cert[path_size] = "";
    char tls_key[path_size] = "";
    int connect_ms = 300;
    int request_ms = 700;
    int transfer_ms = 2000;
    int chunk_ms = 5000;
    int chunk_bytes = 65536;
    int upload_lease_s = 60;
    long sysback_limit_bytes = 8589934592;
    int sysback_quota_share = 60;
    char trace_target[word_size] = "file";
    int trace_level = 3;
    char trace_file[path_size] = "/var/log/kesta/trace.log";
    int trace_rotate_bytes = 1 << 20;
    int trace_keep = 4;
    char eeprom_file[path_size] = "/boot/solaris/bootenv.rc";
    char vpd_file[path_size] = "/var/lib/kesta/vpd";
    char fault_file[path_size] = "";
};

// Read once in the life of the process, at the first call. A value that can't be used keeps its
// default, and settings_problem() says which.
const Settings &settings();

// The first thing that is wrong with the settings, as one line; empty if nothing is.
const char *settings_problem();

// A setting that one platform alone has, by its name there: "NAME.KEY", with KESTA_PLATFORM_NAME_KEY before it. Null
// where it is not set. All others pass it by: the trace log and the commands are the same for every platform.
const char *platform_setting(const char *key);

// "file", "stderr", "syslog" or "none".
TraceTarget trace_target();

}  // namespace platform

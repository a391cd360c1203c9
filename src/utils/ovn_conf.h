// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <forward_list>
#include <string>
#include <vector>

namespace korva {

/// Index of the variable that names the product's root directory.
constexpr int kProductRootDirIndex = 28;

/// Reads /etc/ovn/ovn.conf unless it has been read. Returns 0, or -1 when it cannot be read; that is logged
/// and not remembered, so the next lookup tries again.
int ovnConfLoad();

/// The value of a variable of /etc/ovn/ovn.conf, or null when the file cannot be read or does not define it.
/// This and the strings returned by the functions below stay valid for the life of the process.
const char* ovnConfGet(const char* name);

/// The same for the variable at `index` of the table of known variables (1 to 30).
const char* ovnConfGetByIndex(int index);

/// The same, with the built-in default where the file says nothing: never null for 1 to 30.
const char* ovnConfGetDefaultByIndex(int index);

/// The same by name. Null, with a message, for a name that is not in the table even if the file defines it.
const char* ovnConfGetDefault(const char* name);

/// One variable; the store owns both strings.
struct conf_entry {
    const char* name;
    const char* value;
};

/// A store of variables. The functions below return 0, or -1 with errno set.
struct conf_data {
    std::vector<conf_entry> entries;
    bool finalized = false;  ///< entries are sorted by name
    /// Every string that entries point or pointed to: also a replaced value stays valid.
    std::forward_list<std::string> strings;
};

/// Makes room for one more entry: 20 at first, twice as many whenever the store is full.
int conf_init_r(conf_data* conf);

/// Reads definitions from a file and finalizes the store. Malformed lines are logged and skipped; of several
/// definitions of one variable the last holds.
int conf_read_file_r(const char* path, conf_data* conf);

/// Adds a variable or replaces its value; the store keeps copies.
int conf_set_r(const char* name, const char* value, conf_data* conf);

/// The value, valid until conf_free_r(), or null.
const char* conf_get_r(const char* name, const conf_data* conf);

/// Sorts the store, which makes lookups faster.
int conf_finalize_r(conf_data* conf);

/// Empties the store.
int conf_free_r(conf_data* conf);

}  // namespace korva

// SPDX-License-Identifier: Apache-2.0
#include "utils/ovn_conf.h"

#include "utils/log_hook.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace korva {
namespace {

constexpr const char* kOvnConfPath = "/etc/ovn/ovn.conf";
constexpr std::size_t kFirstCapacity = 20;

struct KnownVariable {
    const char* name;
    const char* builtIn;
};

// The place of a variable is part of the interface. The first and the last entry only mark the bounds.
constexpr std::array<KnownVariable, 32> kKnownVariables{{
    {"_MIN_POSSIBLE_OVN_CONF_VAR_NAME", "_MIN_POSSIBLE_OVN_CONF_VAR_VALUE"},
    {"KORVA_MAILNAMES_D", "/var/qmail/mailnames"},
    {"COURIER_IMAP_ROOT_D", "/"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CLIENT_PHP_BIN", "/usr/local/ovn/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/usr/share/apache2/icons/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/awstats"},
    {"AWSTATS_BIN_D", "/srv/www/cgi-bin/awstats"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/usr/share/tomcat6"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/pgsql/data"},
    {"PGSQL_BIN_D", "/usr/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/ovn/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/lib/named"},
    {"FTPD_CONF_INC", "/etc/proftpd.include"},
    {"HTTPD_SERVICE", "apache2"},
    {"HTTPD_LOG_D", "/var/log/apache2"},
    {"HTTPD_INCLUDE_D", "/etc/apache2/conf.d"},
    {"HTTPD_CONF_D", "/etc/apache2"},
    {"HTTPD_VHOSTS_D", "/srv/www/vhosts"},
    {"PRODUCT_ROOT_D", "/usr/local/ovn"},
    {"NAMED_OPTIONS_CONF", "/etc/named.conf.include.korva-options"},
    {"NAMED_ZONES_CONF", "/etc/named.conf.include.korva-zones"},
    {"_MAX_POSSIBLE_OVN_CONF_VAR_NAME", "_MAX_POSSIBLE_OVN_CONF_VAR_VALUE"},
}};

// Never freed: the strings in it are handed out for the life of the process.
conf_data* theOvnConf = nullptr;

bool isKnownIndex(int index) {
    return index >= 0 && static_cast<std::size_t>(index) < kKnownVariables.size();
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The buffer that getline(3) fills.
class Line {
  public:
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { std::free(text_); }

    /// Reads the next line with its newline. False at the end of the file and when reading fails.
    bool read(std::FILE* file) { return ::getline(&text_, &capacity_, file) != -1; }
    char* text() { return text_; }

  private:
    char* text_ = nullptr;
    std::size_t capacity_ = 0;
};

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isNameCharacter(char c) {
    return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0;
}

bool isEndOrComment(char c) {
    return c == '\0' || c == '#';
}

char* skipSpaces(char* text) {
    while (isSpace(*text)) {
        ++text;
    }
    return text;
}

char* skipName(char* text) {
    while (isNameCharacter(*text)) {
        ++text;
    }
    return text;
}

// Existing configuration files rely on this rule: an odd run of white space at the end is cut at its last
// character, an even run stays whole, newline included.
char* endOfValue(char* value) {
    char* marker = nullptr;
    char* position = value + 1;
    for (; !isEndOrComment(*position); ++position) {
        marker = isSpace(*position) && marker == nullptr ? position : nullptr;
    }
    return marker != nullptr ? marker : position;
}

std::vector<conf_entry>::iterator findEntry(const char* name, conf_data* conf) {
    return std::find_if(conf->entries.begin(), conf->entries.end(),
                        [name](const conf_entry& entry) { return std::strcmp(entry.name, name) == 0; });
}

/// A copy that lives as long as the store. Throws bad_alloc.
const char* keepString(const char* text, conf_data* conf) {
    return conf->strings.emplace_front(text).c_str();
}

int setFromLine(char* line, conf_data* conf) {
    char* name = skipSpaces(line);
    if (isEndOrComment(*name)) {
        return 0;
    }
    char* nameEnd = skipName(name);
    if (!isSpace(*nameEnd)) {
        logUtility("Invalid variable definition %s\nExpected a space after variable name\n", name);
        return 0;
    }
    char* value = skipSpaces(nameEnd);
    if (isEndOrComment(*value)) {
        logUtility("Invalid variable definition %s\nExpected a value", name);
        return 0;
    }
    *nameEnd = '\0';
    *endOfValue(value) = '\0';
    return conf_set_r(name, value, conf);
}

int readLines(std::FILE* file, conf_data* conf) {
    Line line;
    errno = 0;
    while (line.read(file)) {
        if (setFromLine(line.text(), conf) != 0) {
            const int error = errno;
            logUtility("Unable to form configuration: %s", std::strerror(error));
            errno = error;
            return -1;
        }
    }
    if (std::feof(file) == 0) {
        const int error = errno;
        logUtility("Unable to read configuration file: %s", std::strerror(error));
        errno = error;
        return -1;
    }
    return 0;
}

}  // namespace

int conf_init_r(conf_data* conf) {
    if (conf->entries.size() < conf->entries.capacity()) {
        return 0;
    }
    try {
        conf->entries.reserve(std::max(kFirstCapacity, conf->entries.capacity() * 2));
    } catch (const std::bad_alloc&) {
        logUtility("Unable to read configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int conf_set_r(const char* name, const char* value, conf_data* conf) {
    try {
        const auto known = findEntry(name, conf);
        if (known != conf->entries.end()) {
            known->value = keepString(value, conf);
            return 0;
        }
        if (conf_init_r(conf) != 0) {
            return -1;
        }
        const char* keptName = keepString(name, conf);
        conf->entries.push_back({keptName, keepString(value, conf)});
        conf->finalized = false;
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

const char* conf_get_r(const char* name, const conf_data* conf) {
    const auto& entries = conf->entries;
    if (conf->finalized) {
        const auto found = std::lower_bound(
            entries.begin(), entries.end(), name,
            [](const conf_entry& entry, const char* wanted) { return std::strcmp(entry.name, wanted) < 0; });
        return found != entries.end() && std::strcmp(found->name, name) == 0 ? found->value : nullptr;
    }
    const auto found = std::find_if(entries.begin(), entries.end(), [name](const conf_entry& entry) {
        return std::strcmp(entry.name, name) == 0;
    });
    return found != entries.end() ? found->value : nullptr;
}

int conf_finalize_r(conf_data* conf) {
    std::sort(conf->entries.begin(), conf->entries.end(),
              [](const conf_entry& left, const conf_entry& right) {
                  return std::strcmp(left.name, right.name) < 0;
              });
    conf->finalized = true;
    return 0;
}

int conf_free_r(conf_data* conf) {
    *conf = conf_data();
    return 0;
}

int conf_read_file_r(const char* path, conf_data* conf) {
    if (conf_init_r(conf) != 0) {
        return -1;
    }
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path, "re"));
    if (!file) {
        const int error = errno;
        logUtility("unable to open configuration file %s: %s\n", path, std::strerror(error));
        errno = error;
        return -1;
    }
    return readLines(file.get(), conf) == 0 ? conf_finalize_r(conf) : -1;
}

int ovnConfLoad() {
    if (theOvnConf != nullptr) {
        return 0;
    }
    std::unique_ptr<conf_data> conf(new (std::nothrow) conf_data);
    if (!conf) {
        logUtility("Not enough memory to allocate Korva runtime configuration structure\n");
        errno = ENOMEM;
        return -1;
    }
    if (conf_read_file_r(kOvnConfPath, conf.get()) != 0) {
        return -1;
    }
    theOvnConf = conf.release();
    return 0;
}

const char* ovnConfGet(const char* name) {
    return ovnConfLoad() == 0 ? conf_get_r(name, theOvnConf) : nullptr;
}

const char* ovnConfGetByIndex(int index) {
    static std::array<const char*, kKnownVariables.size()> cache{};
    if (!isKnownIndex(index)) {
        return nullptr;
    }
    const auto place = static_cast<std::size_t>(index);
    if (cache.at(place) == nullptr) {
        cache.at(place) = ovnConfGet(kKnownVariables.at(place).name);
    }
    return cache.at(place);
}

const char* ovnConfGetDefaultByIndex(int index) {
    if (!isKnownIndex(index)) {
        return nullptr;
    }
    const char* value = ovnConfGetByIndex(index);
    return value != nullptr ? value : kKnownVariables.at(static_cast<std::size_t>(index)).builtIn;
}

const char* ovnConfGetDefault(const char* name) {
    constexpr int kUpperBound = static_cast<int>(kKnownVariables.size()) - 1;
    for (int index = 0; index < kUpperBound; ++index) {
        if (std::strcmp(kKnownVariables.at(static_cast<std::size_t>(index)).name, name) == 0) {
            return ovnConfGetDefaultByIndex(index);
        }
    }
    logUtility("variable '%s' isn't found neither in %s nor in compile-time defaults\n", name, kOvnConfPath);
    return nullptr;
}

}  // namespace korva

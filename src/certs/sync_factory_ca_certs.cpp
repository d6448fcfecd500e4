#include "certs/certs.h"

#include <algorithm>

#include "platform/log.h"
#include "store/config_store.h"

namespace {

const char kFactoryDir[] = "/phone/factory/certs/phoneca/";
const char kConfigDir[] = "/config/certs/phoneca/";

// The copy as a shell would have been told it: this is the line the log shows, but it
// is never run. The name stands unquoted, exactly as the directory gives it.
std::string copyCommandText(const std::string& name) {
    return "cp " + std::string(kFactoryDir) + name + " " + kConfigDir + name;
}

}  // namespace

void listDirectoryNames(const std::string& directory, std::vector<std::string>& names) {
    names.clear();
    store::listDirectory(directory, names);
}

void syncFactoryCaCerts() {
    // The whole directory is read before the first copy, so the copies cannot change the list.
    std::vector<std::string> names;
    listDirectoryNames(kFactoryDir, names);
    // What the configuration holds already, from one listing rather than a lookup per
    // name (a large phone has 500 certificates); a link, or a name the listing lacks,
    // is looked up on its own.
    std::vector<std::string> present;
    store::listPlainEntries(kConfigDir, present);
    std::sort(present.begin(), present.end());
    for (const std::string& name : names) {
        std::string target = kConfigDir + name;
        // Presence alone counts: a certificate already there is never refreshed.
        if (std::binary_search(present.begin(), present.end(), name) || ETL_MiscHelper::pathFileExist(target)) continue;
        app_log(60, 6, "Sync cert %s\n", copyCommandText(name).c_str());
        // No shell: whatever bytes the name holds, it is one file copied to one file.
        // A copy that fails (a subdirectory, no target directory) is logged by the store.
        store::copyFile(target, kFactoryDir + name);
    }
}

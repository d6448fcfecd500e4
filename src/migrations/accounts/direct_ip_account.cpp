#include "migrations/accounts/accounts.h"
#include "platform/log.h"
#include "store/config_store.h"

namespace {

const char kDirectIpFile[] = "/config/user/voip/directip.cfg";
const char kFactoryAccount16[] = "/phone/factory/user/voip/sipAccount16.cfg";

// Only the value 1 marks the direct-IP account; 2 or anything else does not.
bool flaggedDirectIp(const std::string& accountFile) {
    return etlGetRegistryInt(accountFile, "account", "directip", 0) == 1;
}

// One leading '?' marks a value; only that byte goes. Blanks that then lead the value
// ("? abc") go too: a value cannot begin with a blank in these files, so they read as
// spacing after the '=' and the next load would drop them anyway.
void stripMark(ETL_FileHelper::iniKey& key) {
    std::string value = key.GetValue("");
    if (value.empty() || value[0] != '?') return;
    size_t start = value.find_first_not_of(" \t", 1);
    key.SetValue(start == std::string::npos ? std::string_view() : std::string_view(value).substr(start));
}

// Keys before the first section and lines that are not keys are passed over.
void stripSectionMarks(ETL_FileHelper::iniSection& section) {
    for (ETL_FileHelper::iniObject* node : section.objects())
        if (node && node->type() == ETL_FileHelper::iniObject::kKey)
            stripMark(*static_cast<ETL_FileHelper::iniKey*>(node));
}

// True, with one line, when the direct-IP file is an account file other than `source`
// under another name (a link joins them): the gather's copy would overwrite that account.
bool directIpFileIsAnotherAccount(const std::string& source) {
    for (int n = 16; n >= 0; --n) {
        std::string other = accountFilePath(n);
        if (other == source || !store::sameFile(kDirectIpFile, other)) continue;
        app_log(60, 4, "Cannot copy [%s] to [%s]: it is [%s] under another name\n", source.c_str(), kDirectIpFile,
                other.c_str());
        return true;
    }
    return false;
}

}  // namespace

void gatherDirectIpAccount() {
    std::string gathered;     // the account file copied into the direct-IP file
    bool othersGone = true;   // every other flagged file removed, and no flag left unread
    for (int n = 16; n >= 0; --n) {
        std::string path = accountFilePath(n);
        if (!ETL_MiscHelper::pathFileExist(path)) continue;
        // A file that cannot be read (logged by the store) reads as not flagged and does
        // not hold up the gather; but it may be flagged, so see the removal below.
        if (store::unreadable(path)) othersGone = false;
        if (!flaggedDirectIp(path)) continue;
        // The highest flagged file that copies becomes the direct-IP file. A file whose
        // copy failed keeps its place, and the next flagged file gets its turn.
        // A direct-IP file that is an account file under another name is not gathered
        // into: a copy over it would erase that account. When it is this very file, the
        // copy fails (it is one file) and a lower flagged file must not take its turn.
        // Nothing is copied or removed then.
        if (gathered.empty()) {
            if (directIpFileIsAnotherAccount(path)) return;
            if (store::copyFile(kDirectIpFile, path)) gathered = path;
            else if (store::sameFile(kDirectIpFile, path)) return;
            continue;
        }
        if (!store::removeFile(path)) othersGone = false;
    }
    // The copied file goes last, once the direct-IP file is durable, and only when no
    // other flagged file may be left (a failed removal, a flag that could not be read): a
    // run started again after a cut or such a failure then finds it still flagged and
    // copies it again, rather than a lower flagged file over it.
    if (!gathered.empty() && othersGone) store::removeFile(gathered);
}

void installDirectIpAccount() {
    std::string account16 = accountFilePath(16);
    if (ETL_MiscHelper::pathFileExist(kDirectIpFile)) {
        // The direct-IP file itself is removed at the very end of the run (see
        // removeInstalledDirectIpFile): a cut before then leaves it for the next boot.
        store::copyFile(account16, kDirectIpFile);
        return;
    }
    if (!ETL_MiscHelper::pathFileExist(kFactoryAccount16)) return;
    // Stripping after a failed copy would change the account file 16 that was there.
    if (store::copyFile(account16, kFactoryAccount16)) stripValueMarks(account16);
}

int stripValueMarks(const std::string& path) {
    if (path.empty() || !ETL_MiscHelper::pathFileExist(path)) return 0;
    ETL_FileHelper::iniFile doc(nullptr);
    // A file that exists but cannot be loaded is left as it is, never saved over.
    if (!doc.LoadFromFile(path)) return 0;
    for (ETL_FileHelper::iniObject* node : doc.objects())
        if (node && node->type() == ETL_FileHelper::iniObject::kSection)
            stripSectionMarks(*static_cast<ETL_FileHelper::iniSection*>(node));
    return doc.SaveToFile(path) ? 1 : 0;
}

// Run after the last step of mode 2, when everything else is durable. A cut of power at
// any earlier moment leaves the direct-IP file in place, so the next boot installs it
// again rather than the factory's account file 16 over it. Removed only when account
// file 16 is another file holding exactly its bytes: a copy that failed, also one onto
// itself (one file under two names), leaves both where they were.
void removeInstalledDirectIpFile() {
    std::string installed, own;
    if (!ETL_MiscHelper::pathFileExist(kDirectIpFile)) return;
    if (store::sameFile(accountFilePath(16), kDirectIpFile)) return;
    if (!store::readFile(accountFilePath(16), installed) || !store::readFile(kDirectIpFile, own) || installed != own) return;
    store::removeFile(kDirectIpFile);
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include "passwords/passwords.h"
#include "platform/config_mapper.h"
#include "platform/log.h"
#include "platform/pw_data.h"
#include "store/config_store.h"

namespace {

// The file last loaded, kept from the first key to the end of the run, so that
// consecutive keys of one file cost one load. Every key is saved before the next, so
// no change ever waits here. Paths are compared as text: another spelling of the same
// file is loaded again, which sees every save made before. A reset of the store (a new
// root or run) makes it stale.
struct LastFile {
    ETL_FileHelper::iniFile document;
    std::string path;  // empty: nothing usable loaded
    unsigned long storeReset = 0;
};

LastFile& lastFile() {
    static LastFile cache;
    return cache;
}

// Makes the document hold `file`, loading it only when it is not the one it holds.
bool holdFile(LastFile& cache, const char* file) {
    if (!cache.path.empty() && cache.path == file && cache.storeReset == store::resetCount()) return true;
    cache.storeReset = store::resetCount();
    if (!cache.document.LoadFromFile(file)) {
        ETL_TraceHelper::etlTrace(3, "Fail to load file [%s] !!", file);
        cache.path.clear();
        return false;
    }
    cache.path = file;
    return true;
}

// Runs the routine of the mode over `input`; the trace shows the outcome either way.
int reencode(int mode, const char* input, char* output) {
    if (mode == kReencodeEncrypt) {
        // A value that opens with this key (asked of the decryption routine, as the
        // translation asks it) is in the form wanted. The encryption routine would
        // protect one whose plain text has a UTF-8 letter a second time, as only the
        // translation's test needs: here it would hand whoever opens it once another
        // password, and a rule that copies the key would follow it only a boot later.
        char plain[kPwDataBufferSize] = {};
        int result = 0;
        if (pw_data_decrypt(input, plain) == 0) std::memcpy(output, input, std::strlen(input) + 1);
        else result = pw_data_encrypt(input, output);
        explicit_bzero(plain, sizeof plain);
        ETL_TraceHelper::etlTrace(2, "Encrypt:(%s)->(%s)", input, output);
        return result;
    }
    int result = pw_data_decrypt(input, output);
    ETL_TraceHelper::etlTrace(2, "Decrypt:(%s)->(%s)", input, output);
    return result;
}

// 1 when the file was saved. The file is saved whether or not the key changed.
int reencodeProtectedKey(int mode, const char* file, const char* section, const char* key, const char* def) {
    if (!file || !section || !key) return 0;
    LastFile& cache = lastFile();
    if (!holdFile(cache, file)) return 0;
    std::string value = cache.document.GetTextValue(section, key, def ? def : "");
    // The routines take no size: at most 159 bytes go in, and the rest of a longer
    // value is replaced by the re-encoding of its first 159.
    char input[kPwDataBufferSize] = {};
    char output[kPwDataBufferSize] = {};
    std::memcpy(input, value.c_str(), std::min(std::strlen(value.c_str()), sizeof input - 1));
    if (input[0] != '\0') {
        int result = reencode(mode, input, output);
        if (result == 0) cache.document.SetTextValue(section, key, output);
        // A plain value that cannot be protected stays as it is, in clear: say where and
        // why. An unusable key file was reported once for the whole run, and a value that
        // does not decrypt is, as a rule, one that is plain already.
        else if (mode == kReencodeEncrypt && result != kPwDataNoKey)
            ETL_TraceHelper::etlTrace(3, "Cannot protect [%s] section [%s] key [%s]: %s; it is left as it was", file,
                                      section, key, pw_data_failure_reason(result));
    }
    return cache.document.SaveToFile(file) ? 1 : 0;
}

void reencodeAccountKey(int mode, const CIniConfigInfo& entry) {
    for (int account = kFirstReencodedAccount; account <= kLastReencodedAccount; ++account) {
        char path[256] = {};
        std::snprintf(path, sizeof path, "%s%d.cfg", "/config/user/voip/sipAccount", account);
        reencodeProtectedKey(mode, path, entry.strSection, entry.strKey, entry.strDefault);
    }
}

}  // namespace

int reencodeProtectedKeys(int mode) {
    std::list<CIniConfigInfo*> entries;
    CConfigMapper mapper;
    if (!mapper.GetAllEncryptConfig(entries)) {
        ETL_TraceHelper::etlTrace(3, "Fail to get encrypt config !!");
        return 0;
    }
    for (const CIniConfigInfo* entry : entries) {
        if (!entry || !entry->bEncrypt) continue;
        if (entry->bAccount)
            reencodeAccountKey(mode, *entry);
        else
            reencodeProtectedKey(mode, entry->strFile, entry->strSection, entry->strKey, entry->strDefault);
    }
    return 1;
}

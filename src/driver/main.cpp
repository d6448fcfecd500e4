#include <malloc.h>

#include "driver/driver.h"
#include "platform/log.h"
#include "platform/pw_data.h"
#include "record/record.h"
#include "store/report.h"

int main(int argc, char** argv) {
#ifdef M_MMAP_THRESHOLD
    // A file's buffers (up to 4 MiB) go back to the system when freed. By default the first
    // one freed raises the threshold, later ones stay in the heap, and their fragments kept
    // a run over files at their limit at 27 MiB instead of 15.
    mallopt(M_MMAP_THRESHOLD, 256 << 10);
#endif
    prepareOutputStreams();
    // The store reports its refusals and failures through the platform log.
    store::setReportSink([](const char* line) { app_log(60, 4, "%s", line); });
    pw_data_report_key_source();
    record::startChangeRecord();
    int status = runUpgrade(argc, argv);
    record::finishChangeRecord(argc > 1 ? argv[1] : nullptr);
    return status;
}

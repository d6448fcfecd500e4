#include "driver/driver.h"
#include "platform/log.h"
#include "platform/pw_data.h"
#include "record/record.h"
#include "store/report.h"

int main(int argc, char** argv) {
    prepareOutputStreams();
    // The store reports its refusals and failures through the platform log.
    store::setReportSink([](const char* line) { app_log(60, 4, "%s", line); });
    pw_data_report_key_source();
    record::startChangeRecord();
    int status = runUpgrade(argc, argv);
    record::finishChangeRecord(argc > 1 ? argv[1] : nullptr);
    return status;
}

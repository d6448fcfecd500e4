#include "driver/driver.h"
#include "platform/log.h"
#include "platform/pw_data.h"

int main(int argc, char** argv) {
    prepareOutputStreams();
    pw_data_report_key_source();
    return runUpgrade(argc, argv);
}

// Announces a class that it does not export a constructor for.
#include "device/ClassRegistration.h"

QS_KEPT_DATA(QS_CLASS_RECORD_SECTION, qs_classRecordsCQsNoExport)
QsClassRecords::SPair qs_classRecordsCQsNoExport = {QS_CLASS_PARENTS_RECORD(CQsNoExport, "IQsStimulationDevice"),
                                                    QS_CLASS_VERSION_RECORD(CQsNoExport, 7, "Without constructor")};

// Announces a class that it does not export a constructor for.
#include "device/ClassRegistration.h"

QS_DECLARE_DATA_SECTION(QS_CLASS_RECORD_SECTION);
QS_DATA_SECTION(QS_CLASS_RECORD_SECTION)
static auto s_records = QsClassRecords::MakePair(QS_CLASS_PARENTS_RECORD(CQsNoExport, "IQsStimulationDevice"),
                                                 QS_CLASS_VERSION_RECORD(CQsNoExport, 7, "Without constructor"));

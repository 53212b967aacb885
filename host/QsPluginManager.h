// The host's plug-in manager.
#pragma once

#include "host/QsSystem.h"

class QS_HOST_API CQsPluginManager
{
public:
    // Broadcasts an event to every consumer that registered for its name; `context` may be written by them. Returns
    // the number of consumers that were told. [any thread]
    static unsigned AppRntm_HandleEvent(const wchar_t* eventName, int argument1, int argument2, void* context);
};

// Extended stimulation device of a plug-in; found by querying a device for "IQsStimulationDeviceEx".
class QS_HOST_API IQsStimulationDeviceEx : virtual public IQsInterface
{
public:
    // Adds a stimulation pattern from an image file. Status, 0 = done.
    virtual int AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                                    bool overwriteExisting) = 0;
};

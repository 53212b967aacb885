// Ids that the device database keeps as the text of a JSON list.
#pragma once

#include "host/QsSystem.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

#include <vector>

// Whole numbers of a JSON list; another element counts as 0, as the list's writer reads it back. Empty for what is no
// list.
inline std::vector<qs_int32> QsJsonIds(const QByteArray& text)
{
    std::vector<qs_int32> ids;
    for (const QJsonValue& element : QJsonDocument::fromJson(text).array())
        ids.push_back(element.toInt());
    return ids;
}

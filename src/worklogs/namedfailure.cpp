#include "worklogs/namedfailure.h"

#include <utility>

NamedFailure::NamedFailure(QString name, QString reason, QString detail)
    : m_name(std::move(name))
    , m_reason(std::move(reason))
    , m_detail(std::move(detail))
    , m_what(m_reason.toStdString())
{
}

#include "cells/ValueTransformers.h"

#include <QGuiApplication>
#include <QHash>
#include <QPalette>

namespace nimbrel {

namespace {

QHash<QString, std::shared_ptr<ValueTransformer>>& registry()
{
    static QHash<QString, std::shared_ptr<ValueTransformer>> transformers;
    return transformers;
}

QColor textColor(bool disabled)
{
    const QPalette palette = QGuiApplication::palette();
    return palette.color(disabled ? QPalette::Disabled : QPalette::Active, QPalette::Text);
}

} // namespace

void ValueTransformer::setValueTransformer(std::shared_ptr<ValueTransformer> transformer, const QString& name)
{
    registry().insert(name, std::move(transformer));
}

std::shared_ptr<ValueTransformer> ValueTransformer::valueTransformerForName(const QString& name)
{
    return registry().value(name);
}

QVariant GrayIfYesTransformer::transformedValue(const QVariant& value) const
{
    if (!value.isValid() || value.isNull())
        return QVariant();
    return textColor(value.toBool());
}

QVariant GrayIfNoTransformer::transformedValue(const QVariant& value) const
{
    if (!value.isValid() || value.isNull())
        return QVariant();
    return textColor(!value.toBool());
}

} // namespace nimbrel

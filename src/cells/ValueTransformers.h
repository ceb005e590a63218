#pragma once

// Value transformers that bindings name: a value in, a display value out. The two greying
// transformers turn a boolean into the normal or the disabled text colour of the palette; a null
// value stays null, so the binding falls back to its own default colour.

#include <QColor>
#include <QString>
#include <QVariant>
#include <memory>

namespace nimbrel {

class ValueTransformer
{
public:
    virtual ~ValueTransformer() = default;
    virtual QVariant transformedValue(const QVariant& value) const = 0;
    static bool allowsReverseTransformation() { return false; }

    // The registry bindings look transformers up in, by name. Registering a name again replaces it.
    static void setValueTransformer(std::shared_ptr<ValueTransformer> transformer, const QString& name);
    static std::shared_ptr<ValueTransformer> valueTransformerForName(const QString& name);
};

class GrayIfYesTransformer : public ValueTransformer
{
public:
    static int transformedValueClass() { return QMetaType::QColor; }
    QVariant transformedValue(const QVariant& value) const override;
};

class GrayIfNoTransformer : public ValueTransformer
{
public:
    static int transformedValueClass() { return QMetaType::QColor; }
    QVariant transformedValue(const QVariant& value) const override;
};

} // namespace nimbrel

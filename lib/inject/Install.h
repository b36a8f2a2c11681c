// Installation: the exchange table and the load-time initialiser that applies it.
#pragma once

#include "objc/Runtime.h"

#include <span>

// Exchanges two instance methods of cls when both are found (inherited ones included); otherwise
// does nothing, silently.
void ZerlanExchange(Class cls, SEL frameworkSelector, SEL replacementSelector);
// The same for two class methods.
void ZerlanExchangeClass(Class cls, SEL frameworkSelector, SEL replacementSelector);

// instance and classMethod rows exchange; an added row gives the class a method of its own.
enum class ZerlanRowKind { instance, classMethod, added };

// One intercepted framework method. The replacement is installed as "zerlan_" + selector on the
// same class (or metaclass) with the framework method's own type encoding, then exchanged. An
// added row installs the implementation under the selector itself, with the type encoding of the
// instance method that typesFrom declares (the class it would otherwise inherit it from); if the
// class defines the selector already, nothing changes.
struct ZerlanExchangeRow {
    const char *className;
    const char *selector;
    ZerlanRowKind kind;
    IMP implementation;
    const char *typesFrom = nullptr;
};

// The rows in install order.
std::span<const ZerlanExchangeRow> ZerlanExchangeTable();

// Installs one row (exposed so that a missing framework method can be shown to skip only its
// own row).
void ZerlanInstallRow(const ZerlanExchangeRow &row);

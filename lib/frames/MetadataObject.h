// ZerlanMetadataObject: the machine-readable code object handed to the app's metadata delegate.
// A runtime subclass of AVMetadataMachineReadableCodeObject whose type is always the QR type and
// whose stringValue is its zerlanPayload (a copied string kept in _zerlanPayload).
#pragma once

#include "objc/Runtime.h"

// The class, declared on first use; nil only if the superclass is missing.
Class ZerlanMetadataObjectClass();

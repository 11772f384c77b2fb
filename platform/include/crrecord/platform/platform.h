/// @file
/// The platform layer: status and logging, fingerprints, typed references and
/// the key record, in one include.
#ifndef CRRECORD_PLATFORM_PLATFORM_H
#define CRRECORD_PLATFORM_PLATFORM_H

#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/qorkey.h"
#include "crrecord/platform/status.h"
#include "crrecord/platform/tref.h"

#endif  // CRRECORD_PLATFORM_PLATFORM_H

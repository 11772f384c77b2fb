/// @file
/// Everything of crrecord: the record library and the platform layer, in one
/// include.
#ifndef CRRECORD_CRRECORD_H
#define CRRECORD_CRRECORD_H

#include "crrecord/platform/platform.h"
#include "crrecord/Status.h"
#include "crrecord/DORecord.h"
#include "crrecord/DORecordSerialized.h"
#include "crrecord/SORecord.h"
#include "crrecord/SOmarshall.h"

#endif  // CRRECORD_CRRECORD_H

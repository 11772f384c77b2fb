// (to be written)
#ifndef CRRECORD_SORECORD_H
#define CRRECORD_SORECORD_H
#endif

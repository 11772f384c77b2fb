// (to be written)
#ifndef CRRECORD_SOMARSHALL_H
#define CRRECORD_SOMARSHALL_H
#endif

// The library's object map: the one class this server offers, CNVDBConverter.
#pragma once
#include "com/nvcommodule.h"

extern NVObjectMapEntry g_NVObjectMap[];

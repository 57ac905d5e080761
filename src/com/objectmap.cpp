#include "com/objectmap.h"

#include "com/ids.h"
#include "com/nvdbconverter.h"

NVObjectMapEntry g_NVObjectMap[] = {
    {&nvcom::kCLSID_NVDBConverter, &CNVDBConverter::UpdateRegistry, &CNVDBConverter::CreateInstance, nullptr},
    {nullptr, nullptr, nullptr, nullptr},
};

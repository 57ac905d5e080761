# The layers of src/, lowest first. A folder's files include headers of their own
# folder and of the folders listed after its name, nothing else; every folder named
# there stands above it in this list, so no two folders can depend on each other.
# Read by src/CMakeLists.txt (one target per folder, whose include path holds only
# these folders) and by cmake/layercheck.cmake (which fails the build on any other
# include).
set(NV_LAYERS common trace security legacydb frame converter2 converter3 com)
# Errors, handles, registry and crypto helpers, key security, the replaceable calls
# and the storage server's contract (the library and tools/nvstore both use it).
set(NV_LAYER_DEPS_common "")
set(NV_LAYER_DEPS_trace common)
set(NV_LAYER_DEPS_security common trace)
set(NV_LAYER_DEPS_legacydb common trace security)
# The conversion frame every converter runs in: CBaseConverter, the lock, the paths.
set(NV_LAYER_DEPS_frame common trace)
set(NV_LAYER_DEPS_converter2 common trace frame)
set(NV_LAYER_DEPS_converter3 common trace security legacydb frame)
# The library itself, on top: the COM server's parts (module, class factory,
# registrar, identifiers, the COM class and its object map), the converter factory
# and holder, DllMain and the exports.
set(NV_LAYER_DEPS_com common trace security legacydb frame converter2 converter3)

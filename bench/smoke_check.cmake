# Runs scripts/bench --smoke (small sizes, no chart) on the build tree as it stands,
# in a Wine prefix and wineserver of its own, and checks that every benchmark ran and
# printed every figure. Times are not checked: this only proves the benchmarks run.
# Called by CTest: cmake -DNV_ROOT=... -DNV_BUILD_DIR=... -DNV_BENCH_OUT=... -P smoke_check.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../cmake/scriptargs.cmake)
nv_require_settings(NV_ROOT NV_BUILD_DIR NV_BENCH_OUT)

execute_process(
    COMMAND env NV_BENCH_SKIP_BUILD=1 NV_BUILD_DIR=${NV_BUILD_DIR}
            bash ${NV_ROOT}/scripts/bench --smoke --out ${NV_BENCH_OUT}
    INPUT_FILE /dev/null
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err
    RESULT_VARIABLE rc
    TIMEOUT 110)
message("${out}")
if(err)
    message("stderr:\n${err}")
endif()
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "scripts/bench --smoke failed: ${rc}")
endif()

file(READ ${NV_BENCH_OUT}/bench.csv csv)
# The roll-up is measured on a second CPU too where the run may use one: the CPUs
# are counted as scripts/bench chooses among them, by the affinity, not by what the
# machine has. (In a list kept in a variable a semicolon would split a figure: "."
# stands for it.)
execute_process(
    COMMAND bash -c "source \"$1\" && nv_allowed_cpus | wc -l" bash ${NV_ROOT}/scripts/env.sh
    OUTPUT_VARIABLE cpus
    OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE cpus_rc)
if(NOT cpus_rc EQUAL 0 OR NOT cpus MATCHES "^[0-9]+$")
    message(FATAL_ERROR "the CPUs this run may use could not be counted: ${cpus}")
endif()
set(two_cpu_figures "")
if(cpus GREATER 1)
    set(two_cpu_figures
        "nvtrace --csv 200 traces on two CPUs \\(floor reading the same files with two threads. median of 1 runs' ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --csv 200 traces on two CPUs: CPU time \\(user\\+system\\) against wall time,[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --csv 200 traces on two CPUs: traces per second,[0-9.]+")
endif()
set(missing "")
foreach(figure
        "1.0->2.0 Convert 200 users \\(floor RegCopyTreeW\\+RegDeleteTreeW\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "backup copy CopyKey \\(anchor RegCopyTreeW\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "cleanup delete DeleteKey \\(anchor RegDeleteTreeW\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "Convert tracing off \\(anchor no Tracing key; median of run ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "Convert tracing on v10 file \\(anchor tracing off; median of run ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "3 users default: library per user \\(floor CryptoAPI loop; median of 1 runs' ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "3 users strict: library per user \\(floor CryptoAPI loop; median of 1 runs' ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "3 users default: store's share per user"
        "strict library per user \\(anchor default\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "6 users: library per user \\(anchor 3 users\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "6 users: library per user \\(floor CryptoAPI loop; median of 1 runs' ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "3 users: wineserver CPU per user while the conversion process ran,[0-9.]+"
        "6 users: wineserver CPU per user while the conversion process ran \\(anchor 3 users\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "6 users: peak private memory of the conversion process,[0-9.]+"
        "nvtrace --csv 200 traces on one CPU \\(floor reading the same files with one thread; median of 1 runs' ratios\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --csv 200 traces on one CPU: CPU time \\(user\\+system\\) against wall time,[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --csv 200 traces on one CPU: traces per second,[0-9.]+"
        ${two_cpu_figures}
        "nvtrace --csv 200 traces: peak memory \\(anchor 20 traces\\),[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --summary of one trace of 800 users in one conversion \\(anchor 200\\): time,[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --html and --chrome-trace of one trace of 800 users in processes of 6 \\(anchor 200\\): peak memory,[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --html and --chrome-trace of one trace of 800 threads named once each \\(anchor 200\\): time,[0-9.]+,[0-9.]+,[0-9.]+"
        "nvtrace --summary of one trace of 800 scopes nested in each other \\(anchor 200\\): peak memory,[0-9.]+,[0-9.]+,[0-9.]+")
    if(NOT csv MATCHES "${figure}")
        string(APPEND missing "\n  ${figure}")
    endif()
endforeach()
if(out MATCHES "warning: [0-9]+ of [0-9]+ users reached the store")
    string(APPEND missing "\n  every user in the store (see the warning above)")
endif()
if(NOT out MATCHES "Wine's periodic registry saves during the run: (held off|left in)")
    string(APPEND missing "\n  the line that says whether Wine's registry saves were held off")
endif()
# Held off by making the prefix's folder immutable: it must not stay so, or the build
# tree could not be removed.
execute_process(COMMAND lsattr -d ${NV_BENCH_OUT}/wineprefix OUTPUT_VARIABLE attributes RESULT_VARIABLE lsattr_rc
                ERROR_QUIET)
if(lsattr_rc EQUAL 0 AND attributes MATCHES "^[^ ]*i")
    string(APPEND missing "\n  a prefix folder without the immutable flag after the run (${attributes})")
endif()
file(READ ${NV_BENCH_OUT}/scaling.csv curve)
if(NOT curve MATCHES "\n3,[0-9.]+,[0-9.]+,[0-9.]+,[0-9.]+\n6,[0-9.]+,[0-9.]+,[0-9.]+,[0-9.]+")
    string(APPEND missing "\n  the scaling curve's points for 3 and 6 users")
endif()
if(missing)
    message(FATAL_ERROR "the smoke run did not produce:${missing}")
endif()

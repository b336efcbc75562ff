"""Which suites look at which source file, the likeliest to notice a change first.

Patterns, so that a new suite of a family joins by its name. Within a pattern short suites go first.
"""
from fnmatch import fnmatch

LOCKS = "unit_lock_*"
MEMORY = f"api_mem_* unit_mem_* fault_mem_* {LOCKS} stress_mem_*"
STREAM = "api_stream_* fault_stream_* fault_text_*"
FILES = f"api_file_* unit_file_* fault_file_* {LOCKS} stress_file_*"
FORMAT = "api_format_* fault_format_*"
# The tables of what fails look at every family; they come last.
FAILURES = "fault_memory_* fault_syscalls_*"
OUTPUT = f"api_output_* api_print_* api_log_* fault_text_* {LOCKS} stress_log_*"

FAMILIES = {
    "psp.cpp": "api_core_* unit_init_* fault_core_* api_thread_* api_tmpdir_*",
    "psp_allocator_block.cpp": f"unit_block_* {MEMORY}",
    "psp_allocator_legacy.cpp": f"unit_legacy_* {MEMORY}",
    "psp_allocator_list.cpp": f"unit_list_* {MEMORY}",
    "psp_allocator_stack.cpp": f"unit_stack_* {MEMORY}",
    "psp_bits.cpp": "api_bits_*",
    "psp_digits.cpp": f"api_float_* {FORMAT} fault_pure_*",
    "psp_directive.cpp": FORMAT,
    "psp_fileutil.cpp": "api_fileutil_* fault_fileutil_*",
    "psp_float.cpp": f"api_float_* {FORMAT} fault_pure_*",
    "psp_free_index.cpp": f"unit_list_* unit_free_index_* {MEMORY}",
    "psp_large_block.cpp": f"unit_large_* {MEMORY}",
    "psp_locale.cpp": "api_string_* fault_pure_* fault_system_*",
    "psp_log.cpp": f"api_log_* {OUTPUT}",
    "psp_makestr.cpp": "api_makestr_* fault_pure_* fault_text_*",
    "psp_module.cpp": "api_module_* fault_system_*",
    "psp_number.cpp": "api_number_* fault_pure_*",
    "psp_output_stack.cpp": OUTPUT,
    "psp_path.cpp": "api_path_* fault_path_*",
    "psp_process.cpp": "api_process_* fault_system_* fault_core_* api_core_*",
    "psp_random.cpp": "api_random_* fault_sync_*",
    "psp_scan.cpp": "api_scan_* fault_path_*",
    "psp_stream.cpp": STREAM,
    "psp_stream_cache.cpp": f"fault_stream_cache_* {STREAM}",
    "psp_stream_utf16.cpp": f"api_stream_utf16_* {STREAM}",
    "psp_string.cpp": "api_string_* fault_pure_*",
    "psp_threads_pthread.cpp": "api_thread_* unit_sync_* fault_sync_*",
    "psp_threads_unix.cpp": f"api_sync_* unit_sync_* fault_sync_* {LOCKS} stress_sync_*",
    "psp_time.cpp": "api_time_* fault_system_*",
    "psp_tmpdir.cpp": f"api_tmpdir_* fault_tmpdir_* {LOCKS}",
    "psp_utf8_avx2.cpp": "unit_utf8_* api_utf8_*",
    "psp_utf8_avx512.cpp": "unit_utf8_* api_utf8_*",
    "psp_utf8_scan.cpp": "unit_utf8_* api_utf8_*",
    "psp_varint.cpp": "unit_varint_* api_varint_* api_binstream_*",
    "psp_vsnprintf.cpp": FORMAT,
    "pspalign.cpp": "api_bits_*",
    "pspbufferedstream.cpp": "api_binstream_* fault_pure_*",
    "pspfile.cpp": FILES,
    "pspglobal.cpp": f"api_global_* fault_core_* fault_pool_* unit_init_* {LOCKS}",
    "pspint.cpp": "api_output_*",
    "pspmem.cpp": f"{MEMORY} unit_init_* api_core_* fault_core_*",
    "psppool.cpp": f"api_pool_* fault_pool_* {LOCKS}",
    "pspunix.cpp": "unit_file_primitives_* api_file_* fault_file_*",
    "psputf8.cpp": "unit_utf8_* api_utf8_* fault_pure_*",
    "pspver.cpp": "api_core_*",
}


def family(file, names):
    """The suites among `names` for a source file, in the order of the patterns; all of them for a
    file without a row."""
    chosen = []
    for pattern in f"{FAMILIES.get(file, '*')} {FAILURES}".split():
        chosen.append(sorted(n for n in names if fnmatch(n, pattern)
                             and not any(n in earlier for earlier in chosen)))
    return chosen

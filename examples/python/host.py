"""A host in Python: queries one file twice, computes once, frees signers.

usage: host.py HEADER FREE_SIGNERS

HEADER is the installed orvexeng.h, FREE_SIGNERS free_signers.cpp as a shared library.
"""

import re
import sys

import cffi


def declarations(header):
    """Returns what cffi can parse of a header; it has no preprocessor."""
    text = re.sub(r"/\*.*?\*/", "", header, flags=re.S)
    text = re.sub(r"#ifdef __cplusplus.*?#endif", "", text, flags=re.S)
    return re.sub(r"^#.*$", "", text, flags=re.M).replace("ORVEX_API", "")


ffi = cffi.FFI()
with open(sys.argv[1], encoding="ascii") as file:
    ffi.cdef(declarations(file.read()))
ffi.cdef(
    """void free_signers(metadata_output_s *out);
       char *new_signers(metadata_output_s *out, uint32_t count);"""
)
lib = ffi.dlopen("liborvexeng.so.1")
signers = ffi.dlopen(sys.argv[2])


# Callbacks must live as long as the engine may call them; an exception becomes the code.
@ffi.callback("orvex_query_cb", error=-1)
def compute(question, answer, context):
    calls = ffi.from_handle(context)
    calls.append(ffi.string(question.path))
    ffi.memmove(answer.digest32, bytes([len(calls[-1])]) * 32, 32)
    ffi.memmove(signers.new_signers(answer, 1), b"Example Builds", 14)
    answer.queryFlags |= lib.QUERY_DIGEST32
    return 0


@ffi.callback("orvex_query_cb", error=-1)
def no_file_type(question, answer, context):
    return -1


# May run with a lock held: it must not call the library.
@ffi.callback("orvex_log_cb")
def log(level, line, function, file, message, length):
    if level <= 1:
        print(ffi.string(message).decode(errors="replace"), file=sys.stderr)


lib.orvex_register_log_cb(log)
callbacks = ffi.new("metadata_query_fptrs_s *", [compute, no_file_type])
if lib.orvex_init(callbacks) != lib.ORVEX_OK:
    sys.exit("the engine does not start")
calls = []
context = ffi.new_handle(calls)
path = ffi.new("char[]", b"/bin/true")  # The record only points to it.
for _ in range(2):
    question = ffi.new("metadata_input_s *", {"path": path, "size": 43872, "mtime": 1663661352})
    question.fileOperation = lib.KEY_PATH | lib.KEY_SIZE | lib.KEY_MTIME
    question.invOperation = lib.INV_KEEP_IN_CACHE
    question.queryFlags = wanted = lib.QUERY_DIGEST32 | lib.QUERY_SIGNERS
    answer = ffi.new("metadata_output_s *")  # Zeroed.
    code = lib.orvex_query(question, answer, context)
    if code != lib.ORVEX_OK or answer.queryFlags & wanted != wanted:
        sys.exit(f"no answer, code {code}")
    print(
        f"digest {answer.digest32[0]:02x}...,",
        f"signer {ffi.string(answer.signers).decode()}, computed {len(calls)} time(s)",
    )
    signers.free_signers(answer)
sys.exit(lib.orvex_deinit())

// A host in Go: queries one file twice, computes once, frees signers.
//
// free_signers.h and free_signers.cpp lie in the same directory; cgo compiles them.
package main

// #cgo pkg-config: orvexeng
// #include <stdlib.h>
// #include <string.h>
// #include "free_signers.h"
//
// int goCompute(metadata_input_s *in, metadata_output_s *out, void *ctx);
// int goNoFileType(metadata_input_s *in, metadata_output_s *out, void *ctx);
// void goLog(unsigned int level, unsigned int line, char *function, char *file,
//            char *message, unsigned int length);
import "C"

import (
	"fmt"
	"os"
	"sync/atomic"
	"unsafe"
)

// Callbacks run on the thread of the goroutine that queries, several at once.
var calls int32

//export goCompute
func goCompute(in *C.metadata_input_s, out *C.metadata_output_s, ctx unsafe.Pointer) C.int {
	atomic.AddInt32(&calls, 1)
	for i := range out.digest32 {
		out.digest32[i] = C.uint8_t(C.strlen(in.path))
	}
	name := C.CString("Example Builds")
	defer C.free(unsafe.Pointer(name))
	slots := C.new_signers(out, 1)
	if slots == nil {
		return C.ORVEX_NO_MEMORY
	}
	C.strncpy(slots, name, C.ORVEX_SIGNER_SLOT-1)
	out.queryFlags |= C.QUERY_DIGEST32
	return 0
}

//export goNoFileType
func goNoFileType(in *C.metadata_input_s, out *C.metadata_output_s, ctx unsafe.Pointer) C.int {
	return -1
}

// May run with a lock held: it must not call the library.
//
//export goLog
func goLog(level, line C.uint, function, file, message *C.char, length C.uint) {
	if level <= 1 {
		fmt.Fprintln(os.Stderr, C.GoString(message))
	}
}

func main() {
	C.orvex_register_log_cb(C.orvex_log_cb(unsafe.Pointer(C.goLog)))
	callbacks := C.metadata_query_fptrs_s{
		metaQueryCallback:     C.orvex_query_cb(C.goCompute),
		fileTypeQueryCallback: C.orvex_query_cb(C.goNoFileType),
	}
	if C.orvex_init(&callbacks) != C.ORVEX_OK {
		os.Exit(1)
	}
	path := C.CString("/bin/true")
	defer C.free(unsafe.Pointer(path))
	for i := 0; i < 2; i++ {
		in := C.metadata_input_s{path: path, size: 43872, mtime: 1663661352}
		in.fileOperation = C.KEY_PATH | C.KEY_SIZE | C.KEY_MTIME
		in.invOperation = C.INV_KEEP_IN_CACHE
		in.queryFlags = C.QUERY_DIGEST32 | C.QUERY_SIGNERS
		var out C.metadata_output_s // Zeroed.
		if C.orvex_query(&in, &out, nil) != C.ORVEX_OK || out.queryFlags&in.queryFlags != in.queryFlags {
			os.Exit(1)
		}
		fmt.Printf("digest %02x..., signer %s, computed %d time(s)\n",
			out.digest32[0], C.GoString(out.signers), atomic.LoadInt32(&calls))
		C.free_signers(&out)
	}
	os.Exit(int(C.orvex_deinit()))
}

//! A host in Rust: queries one file twice, computes once, frees signers.
//!
//! The records are those of orvexeng.h. For a project generate them with bindgen.

use std::ffi::{c_void, CStr};
use std::os::raw::{c_char, c_int, c_uint};
use std::process::exit;
use std::sync::atomic::{AtomicI32, Ordering};

const QUERY_DIGEST32: u32 = 0x004;
const QUERY_SIGNERS: u32 = 0x010;
const KEY_PATH: u32 = 0x01;
const KEY_SIZE: u32 = 0x02;
const KEY_MTIME: u32 = 0x04;
const INV_KEEP_IN_CACHE: u32 = 0x01;
const ORVEX_OK: c_int = 0;
const ORVEX_NO_MEMORY: c_int = 2;

#[repr(C)]
struct Input {
    reserved0: u32,
    reserved1: u32,
    name: *const c_char,
    path: *const c_char,
    reserved2: u32,
    size: u64,
    mtime: u64,
    device_id: u64,
    file_id: u64,
    file_operation: u32,
    inv_operation: u32,
    query_flags: u32,
}

#[repr(C)]
struct Output {
    reserved0: u32,
    reserved1: u32,
    query_flags: u32,
    size: u64,
    modification_time: u64,
    reserved2: [u8; 16],
    digest20: [u8; 20],
    digest32: [u8; 32],
    digest16: [u8; 16],
    aux_digest20: [u8; 20],
    signer_count: u32,
    signers: *mut c_char,
    major: i32,
    minor: i32,
    feedback: i32,
    result_ready: u32,
}

// A panic must not leave a callback: compile with -C panic=abort, or catch it inside.
type QueryCb = unsafe extern "C" fn(*mut Input, *mut Output, *mut c_void) -> c_int;
type LogCb =
    unsafe extern "C" fn(c_uint, c_uint, *const c_char, *const c_char, *const c_char, c_uint);

#[repr(C)]
struct Callbacks {
    meta_query_callback: QueryCb,
    file_type_query_callback: QueryCb,
}

extern "C" {
    fn orvex_register_log_cb(callback: LogCb) -> c_int;
    fn orvex_init(callbacks: *mut Callbacks) -> c_int;
    fn orvex_deinit() -> c_int;
    fn orvex_query(input: *mut Input, output: *mut Output, ctx: *mut c_void) -> c_int;
    // From free_signers.h.
    fn free_signers(output: *mut Output);
    fn new_signers(output: *mut Output, count: u32) -> *mut c_char;
}

unsafe extern "C" fn compute(input: *mut Input, output: *mut Output, ctx: *mut c_void) -> c_int {
    (*(ctx as *const AtomicI32)).fetch_add(1, Ordering::Relaxed);
    let path = CStr::from_ptr((*input).path);
    (*output).digest32 = [path.to_bytes().len() as u8; 32];
    let slots = new_signers(output, 1); // Zeroed.
    if slots.is_null() {
        return ORVEX_NO_MEMORY;
    }
    let name = b"Example Builds";
    std::ptr::copy_nonoverlapping(name.as_ptr(), slots as *mut u8, name.len());
    (*output).query_flags |= QUERY_DIGEST32;
    0
}

unsafe extern "C" fn no_file_type(_: *mut Input, _: *mut Output, _: *mut c_void) -> c_int {
    -1
}

// May run with a lock held: it must not call the library.
unsafe extern "C" fn log(
    level: c_uint,
    _line: c_uint,
    _function: *const c_char,
    _file: *const c_char,
    message: *const c_char,
    _length: c_uint,
) {
    if level <= 1 {
        eprintln!("{}", CStr::from_ptr(message).to_string_lossy());
    }
}

fn main() {
    let calls = AtomicI32::new(0);
    let mut callbacks = Callbacks {
        meta_query_callback: compute,
        file_type_query_callback: no_file_type,
    };
    let path = CStr::from_bytes_with_nul(b"/bin/true\0").unwrap();
    let wanted = QUERY_DIGEST32 | QUERY_SIGNERS;
    unsafe {
        orvex_register_log_cb(log);
        if orvex_init(&mut callbacks) != ORVEX_OK {
            exit(1);
        }
        for _ in 0..2 {
            let mut input: Input = std::mem::zeroed();
            input.path = path.as_ptr();
            input.size = 43872;
            input.mtime = 1663661352;
            input.file_operation = KEY_PATH | KEY_SIZE | KEY_MTIME;
            input.inv_operation = INV_KEEP_IN_CACHE;
            input.query_flags = wanted;
            let mut output: Output = std::mem::zeroed();
            let ctx = &calls as *const AtomicI32 as *mut c_void;
            if orvex_query(&mut input, &mut output, ctx) != ORVEX_OK
                || output.query_flags & wanted != wanted
            {
                exit(1);
            }
            println!(
                "digest {:02x}..., signer {}, computed {} time(s)",
                output.digest32[0],
                CStr::from_ptr(output.signers).to_string_lossy(),
                calls.load(Ordering::Relaxed)
            );
            free_signers(&mut output);
        }
        exit(orvex_deinit());
    }
}

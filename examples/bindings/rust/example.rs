//! Shows one local file in a folder, as a file that takes no room until it is opened. Like
//! examples/minimal, in Rust.
//!
//!     rust-example <empty folder> <local file>

mod nimbra;

use nimbra::*;
use std::ffi::{CStr, CString};
use std::fs::File;
use std::io::{Read, Seek, SeekFrom};
use std::os::raw::c_void;
use std::panic::{catch_unwind, AssertUnwindSafe};
use std::path::PathBuf;
use std::ptr::{null, null_mut};
use std::time::UNIX_EPOCH;

const PIECE: i64 = 1 << 20; // bytes handed over at once: a multiple of 4096

struct Client {
    folder: String,
    source: PathBuf,
    size: i64,
    changed: i64,
    root: CORVWinCFSyncRootHandle,
}

impl Client {
    fn transfer(&self, key: i64, offset: i64, data: &[u8]) -> bool {
        let (bytes, length) = (data.as_ptr() as *const c_void, data.len() as i64);
        let status = CORVWinCFTransferSucceeded;
        let result = unsafe {
            CORVWinCFSyncRootTransferData(self.root, key, 0, bytes, offset, length, status)
        };
        result >= 0
    }

    /// Hands the range over from `offset` on, which says afterwards how far that went.
    fn send(&self, key: i64, offset: &mut i64, end: i64) -> std::io::Result<()> {
        let mut file = File::open(&self.source)?;
        file.seek(SeekFrom::Start(*offset as u64))?;
        let mut piece = vec![0; PIECE as usize];
        while *offset < end {
            let length = PIECE.min(end - *offset);
            let data = &mut piece[..length as usize];
            file.read_exact(data)?;
            if !self.transfer(key, *offset, data) {
                return Err(std::io::Error::last_os_error());
            }
            *offset += length;
        }
        Ok(())
    }
}

/// Every fetch is answered: the program that reads waits. No panic may leave a callback.
unsafe extern "C" fn on_fetch(record: *const CORVWinCFCallbackRecord) {
    let record = &*record;
    let client = &*(record.context as *const Client);
    let [mut offset, length, ..] = record.parameters;
    let wanted = offset + length;
    let end = if length < 0 || wanted > client.size { client.size } else { wanted };
    let sending = AssertUnwindSafe(|| client.send(record.transferKey, &mut offset, end));
    let is_sent = matches!(catch_unwind(sending), Ok(Ok(())));
    if !is_sent {
        let status = CORVWinCFTransferUnsuccessful;
        let (key, rest) = (record.transferKey, end - offset);
        CORVWinCFSyncRootTransferData(client.root, key, 0, null(), offset, rest, status);
    }
    let path = CStr::from_ptr(record.fullPath).to_string_lossy();
    let _ =
        catch_unwind(|| println!("fetch {}: {}", path, if is_sent { "sent" } else { "failed" }));
}

unsafe extern "C" fn on_rename(record: *const CORVWinCFCallbackRecord) {
    let client = &*((*record).context as *const Client);
    CORVWinCFSyncRootAckRename(client.root, (*record).transferKey);
}

unsafe extern "C" fn on_delete(record: *const CORVWinCFCallbackRecord) {
    let client = &*((*record).context as *const Client);
    let (key, status) = ((*record).transferKey, CORVWinCFTransferSucceeded);
    CORVWinCFSyncRootAckDelete(client.root, key, 0, status);
}

fn text(text: &str) -> CString {
    CString::new(text).expect("a path holds no zero byte")
}

/// What the platform says, in words of ours.
fn check(what: &str, advice: &str, result: i32) -> Result<(), String> {
    if result >= 0 {
        return Ok(());
    }
    Err(format!("{}: {} (0x{:08X})", what, advice, result))
}

/// What a placeholder is called follows the last "/" of its path.
fn create_placeholder(client: &Client) -> Result<(), String> {
    let name = client.source.file_name().unwrap_or_default().to_string_lossy().into_owned();
    let (path, identity) = (text(&format!("{}/{}", client.folder, name)), text(&name));
    let (changed, mut item) = (client.changed, null_mut());
    unsafe {
        let meta = CORVWinCFPlaceholderMetaNew(changed, changed, changed, changed, client.size, 0);
        let mut status = CORVWinCFPlaceholderNew(&mut item, path.as_ptr());
        if status == 0 {
            status = CORVWinCFPlaceholderCreate(item, identity.as_ptr(), meta);
        }
        CORVWinCFPlaceholderRelease(item);
        CORVWinCFPlaceholderMetaRelease(meta);
        check(&name, "no placeholder: is there a file of this name already?", status)
    }
}

fn serve(client: &Client, callbacks: CORVWinCFCallbackDelegatorHandle) -> Result<(), String> {
    unsafe {
        CORVWinCFCallbackDelegatorSetFetchCallback(callbacks, Some(on_fetch));
        CORVWinCFCallbackDelegatorSetRenameCallback(callbacks, Some(on_rename));
        CORVWinCFCallbackDelegatorSetDeleteCallback(callbacks, Some(on_delete));
        let name = text("Rust");
        let result = CORVWinCFSyncRootRegister(client.root, name.as_ptr());
        check(&client.folder, "not registered: run it as administrator", result)?;
        let connected = CORVWinCFSyncRootConnect(client.root, callbacks);
        let mut outcome = check(&client.folder, "not connected", connected);
        if outcome.is_ok() {
            outcome = create_placeholder(client);
            if outcome.is_ok() {
                println!("serving {}, press Enter to stop", client.folder);
                let _ = std::io::stdin().read_line(&mut String::new());
            }
            CORVWinCFSyncRootDisconnect(client.root);
        }
        // A real client does this only when its user gives the folder up.
        let result = CORVWinCFSyncRootUnregister(client.root);
        outcome.and_then(|_| check(&client.folder, "not unregistered", result))
    }
}

fn run(folder: String, source: PathBuf) -> Result<(), String> {
    if unsafe { !CORVWinCFIsWinVersionSupportFileStreaming() } {
        return Err("it takes Windows 10, version 1803, and a manifest that names it".into());
    }
    let info = source
        .metadata()
        .map_err(|error| format!("{}: there is no such file: {}", source.display(), error))?;
    let modified = info.modified().ok().and_then(|time| time.duration_since(UNIX_EPOCH).ok());
    let changed = modified.map_or(0, |time| time.as_secs() as i64);
    let size = info.len() as i64;
    let (mut client, mut callbacks) =
        (Client { folder, source, size, changed, root: null_mut() }, null_mut());
    let path = text(&client.folder);
    unsafe {
        let context = &mut client as *mut Client;
        let is_made = CORVWinCFSyncRootNew(&mut (*context).root, path.as_ptr(), 1) == 0
            && CORVWinCFCallbackDelegatorNew(&mut callbacks, context as *mut c_void) == 0;
        let status = if is_made { 0 } else { -1 };
        let outcome = check("out of memory", "close other programs", status)
            .and_then(|_| serve(&*context, callbacks));
        CORVWinCFCallbackDelegatorRelease(callbacks);
        CORVWinCFSyncRootRelease(&mut (*context).root);
        outcome
    }
}

fn main() {
    let arguments: Vec<String> = std::env::args().collect();
    if arguments.len() != 3 {
        eprintln!("rust-example <empty folder> <local file>");
        std::process::exit(2);
    }
    if let Err(what) = run(arguments[1].clone(), arguments[2].clone().into()) {
        eprintln!("rust-example: {}", what);
        std::process::exit(1);
    }
}

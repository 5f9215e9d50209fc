// Waits for changes of a registry key without polling, which the runtime itself does not offer.
using System;
using System.ComponentModel;
using System.Runtime.InteropServices;
using System.Threading;
using Microsoft.Win32;
using Microsoft.Win32.SafeHandles;

/// Arm first, then look, then wait. For one thread, which has to live while it waits.
public sealed class KeyWatch : IDisposable {
    const int NameAndLastSet = 1 | 4;  // REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET
    readonly RegistryKey key;
    readonly AutoResetEvent changed = new AutoResetEvent(false);

    public KeyWatch(RegistryKey key) { this.key = key; }
    public void Dispose() { changed.Dispose(); }

    public void Arm() {
        int error = RegNotifyChangeKeyValue(key.Handle, true, NameAndLastSet, changed.SafeWaitHandle, true);
        if (error != 0) throw new Win32Exception(error);
    }

    public bool Wait(long milliseconds) {
        return changed.WaitOne((int)Math.Max(0, Math.Min(milliseconds, int.MaxValue)));
    }

    /// Milliseconds that the PC was awake: a service cannot answer while it sleeps.
    public static long AwakeMs() {
        long hundredNanoseconds;
        QueryUnbiasedInterruptTime(out hundredNanoseconds);
        return hundredNanoseconds / 10000;
    }

    [DllImport("advapi32.dll")]
    static extern int RegNotifyChangeKeyValue(SafeRegistryHandle key, bool subtree, int filter, SafeWaitHandle changed, bool asynchronous);
    [DllImport("kernel32.dll")]
    static extern bool QueryUnbiasedInterruptTime(out long hundredNanoseconds);
}

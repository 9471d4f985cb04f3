// Runs the example on the library that writes calls down. Where it waits for Enter, the platform asks
// for the file, and announces a rename and a delete.

using System;
using System.Collections;
using System.IO;
using System.Runtime.InteropServices;
using NimbraBinding;

public sealed class Check : TextReader
{
    [DllImport("recording")]
    private static extern IntPtr RecordingReset();

    [DllImport("recording")]
    private static extern IntPtr RecordingTake();

    [DllImport("recording")]
    private static extern IntPtr RecordingData();

    [DllImport("recording")]
    private static extern UIntPtr RecordingDataSize();

    [DllImport("recording")]
    private static extern void RecordingAnswer(string name, uint result);

    [DllImport("recording")]
    private static extern void RecordingPlay(string name, ref CallbackRecord record);

    public override string ReadLine()
    {
        var path = Marshal.StringToHGlobalAnsi("C:\\Cloud\\a.bin");
        var record = new CallbackRecord
        {
            transferKey = 42,
            fullPath = path,
            parameters = new long[] { 0, -1, 0, 0 },
        };
        foreach (var name in new[] { "Fetch", "Rename", "Delete" })
        {
            RecordingPlay(name, ref record);
        }
        Marshal.FreeHGlobal(path);
        return "";
    }

    private static string Text(IntPtr utf8)
    {
        int length = 0;
        while (Marshal.ReadByte(utf8, length) != 0)
        {
            ++length;
        }
        var bytes = new byte[length];
        Marshal.Copy(utf8, bytes, 0, length);
        return System.Text.Encoding.UTF8.GetString(bytes);
    }

    public static int Main(string[] arguments)
    {
        RecordingReset();
        RecordingAnswer("IsWinVersionSupportFileStreaming", 1);
        Console.SetIn(new Check());
        int code = Example.Main(arguments);
        Console.WriteLine("calls:");
        Console.Write(Text(RecordingTake()));
        var data = new byte[(int)RecordingDataSize()];
        Marshal.Copy(RecordingData(), data, 0, data.Length);
        bool isWhole = StructuralComparisons.StructuralEqualityComparer.Equals(
            data, File.ReadAllBytes(arguments[1]));
        Console.WriteLine("data: " + (isWhole ? "whole" : "not that of the file"));
        Console.WriteLine("complaints: " + Text(RecordingReset()));
        return code;
    }
}

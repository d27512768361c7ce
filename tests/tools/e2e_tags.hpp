// The tag file of the end-to-end tests: every type with a writer, every shape,
// every name form and every device class the writers treat differently.
#pragma once

#include <cstdint>

namespace kplc::e2e {

inline constexpr const char *kTags =
    "1,Count,DINT,,4,,DM100,-1\n"
    "2,Speed,INT,,2,,,-1\n"
    "3,Setpoint,UINT,,2,,,-1\n"
    "4,Total,UDINT,,4,,,-1\n"
    "5,Ratio,REAL,,4,,,-1\n"
    "6,Precise,LREAL,,8,,,-1\n"
    "7,Uptime,LTIME,,8,,,-1\n"
    "8,Lamp,BOOL,,1,,MR100,-1\n"
    "9,Ready,BOOL,,1,,,-1\n"
    "10,Alarm,BOOL,,1,,,-1\n"
    "11,Flags,BOOL,[0..31],4,,,-1\n"
    "12,Relays,BOOL,[0..15],2,,MR200,-1\n"
    "13,Inputs,BOOL,[0..15],2,,EM300,-1\n"
    "14,Levels,INT,[0..9],20,,EM200,-1\n"
    "15,Grid,DINT,[0..2_1..3],36,,,-1\n"
    "16,Cube,INT,[0..1_0..2_-1..2],48,,,-1\n"
    "17,Weights,REAL,[1..8],32,,,-1\n"
    "18,Samples,LREAL,[0..3],32,,,-1\n"
    "19,Title,STRING,,20,,,-1\n"
    "20,Lines,STRING,[0..3],84,,,-1\n"
    "21,Labels,STRING,[0..1_1..3],60,,,-1\n"
    "22,Motor.Speed,INT,,2,,,-1\n"
    "23,Motor.Run,BOOL,,1,,,-1\n"
    "24,Motor.Name,STRING,,16,,,-1\n"
    "25,Motor.History,INT,[0..3],8,,,-1\n"
    "26,Motor.Bits,BOOL,[0..7],1,,,-1\n"
    "27,Cell[1][2].Val,DINT,,4,,,-1\n"
    "28,Cell[1][2].On,BOOL,,1,,,-1\n"
    "29,Cell[1][2].Tag,STRING,,8,,,-1\n"
    "30,Cell[1][2].Bits,BOOL,[0..15],2,,,-1\n"
    "31,Main.Step,UINT,,2,,,0\n"
    "32,Main.Busy,BOOL,,1,,,0\n"
    "33,Main.Buffer,INT,[0..4],10,,,0\n"
    "34,Aux.Count,DINT,,4,,,1\n"
    "35,Aux.Message,STRING,,12,,,1\n"
    "36,Link,BOOL,,1,,LR10,-1\n"
    "37,Coil,BOOL,,1,,B100,-1\n"
    "38,Ctl,BOOL,,1,,CR100,-1\n"
    "39,Zf,BOOL,,1,,ZF10,-1\n"
    "40,Rbit,BOOL,,1,,R005,-1\n"
    "41,Coils,BOOL,[0..7],1,,B200,-1\n"
    "42,DmBits,BOOL,[0..31],4,,DM300,-1\n"
    "43,Note,WSTRING,,20,,,-1\n"
    "44,Cell[1][2].Vals,DINT,[0..3],16,,,-1\n"
    "45,Aux.Flags,BOOL,[0..7],1,,,1\n";

// Tag ids (line numbers) used by name in the tests.
enum Id : uint16_t {
    kCount = 1, kSpeed, kSetpoint, kTotal, kRatio, kPrecise, kUptime, kLamp, kReady, kAlarm,
    kFlags, kRelays, kInputs, kLevels, kGrid, kCube, kWeights, kSamples, kTitle, kLines,
    kLabels, kMotorSpeed, kMotorRun, kMotorName, kMotorHistory, kMotorBits, kCellVal, kCellOn, kCellTag, kCellBits,
    kMainStep, kMainBusy, kMainBuffer, kAuxCount, kAuxMessage, kLink, kCoil, kCtl, kZf, kRbit,
    kCoils, kDmBits, kNote, kCellVals, kAuxFlags,
};

}  // namespace kplc::e2e

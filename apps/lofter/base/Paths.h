// Every fixed file location of the orchestrator.
#pragma once

namespace lofter::paths {

inline constexpr char kPluginDirectory[] = "/usr/libexec/lofter/plugins";
inline constexpr char kDebugConfiguration[] = "/etc/tessel/lofter/debug.conf";
inline constexpr char kRunOnceArchive[] = "/bootbank/loftsave.gz";
inline constexpr char kProfilingLog[] = "/var/log/sysboot.log";

inline constexpr char kSyslogDaemon[] = "/usr/lib/tessel/tssyslog/bin/tssyslogd";
inline constexpr char kSyslogPidFile[] = "/var/run/tessel/tssyslogd.pid";
inline constexpr char kSyslogConfiguration[] = "/etc/syslog.conf";
inline constexpr char kSyslogUpgradeScript[] = "/usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh";
inline constexpr char kObservationDaemon[] = "/etc/init.d/hxed";
inline constexpr char kInitScriptLister[] = "/bin/chkconfig -p";  // a shell command
inline constexpr char kStatelessMarker[] = "/stateless.tgz";

inline constexpr char kHostProfile[] = "/etc/tessel/hostprofile.xml";
inline constexpr char kCompressedHostProfile[] = "/etc/tessel/hostprofile.xml.gz";

inline constexpr char kControlSocket[] = "/var/run/tessel/lofterExecutor.sock";
inline constexpr char kExecutorLog[] = "/var/log/lofter-qorcli-stdout.log";
inline constexpr const char* kCommandDirectories[] = {
    "/usr/lib/tessel/qorcli",
    "/usr/lib/tessel/qorcli/int",
    "/usr/lib/tessel/qorcli/int/ext",
    "/usr/lib/tessel/qorcli/ext",
};
inline constexpr char kNativeExecutor[] = "/usr/lib/tessel/lofter/nativeExecutor";

inline constexpr char kConsole[] = "/dev/console";
inline constexpr char kNull[] = "/dev/null";
inline constexpr char kSyslogSocket[] = "/dev/log";

}  // namespace lofter::paths

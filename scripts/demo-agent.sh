# Sourced by demo.sh and soak.sh: a demo agent inside a Wine prefix.

# Makes the agent folder C:\<$1> in $WINEPREFIX with the service, korvaSvcCtl and stand-ins of every
# helper program (each run leaves a line in a journal beside it), a settings file, and the agent's
# registry values, log level $3. $2: the build's bin folder; $4: the folder for reg's output.
# Sets agent_unix, agent_win and bin.
korva_make_demo_agent() {
  local name=$1 built=$2 level=$3 work=$4 helper
  agent_unix="$WINEPREFIX/drive_c/$name"
  agent_win="C:\\$name"
  # The agent's programs live in <agent>\DeviceControl: AgentInstallDir points there, and the
  # settings file's agent_installed_dir plus "DeviceControl\" names the same folder.
  bin="$agent_unix/DeviceControl/bin"
  rm -rf "$agent_unix"
  mkdir -p "$bin" "$agent_unix/data/policy"
  cp "$built/korvaAgentService.exe" "$built/korvaSvcCtl.exe" "$bin/"
  for helper in devctrlaction32 devctrlaction64 korvaDevCtrlSummary korvaFaService korvaFaUser korvaFileShadow \
                driversetup32 driversetup64 korvaConfig qvconfig korvaAgentTrayIcon korvaOnDemand; do
    cp "$built/korvaStandIn.exe" "$bin/$helper.exe"
  done
  # The configuration program sits at BasePath; a stand-in winlogon.exe gives the tray program a
  # user session to appear in (started by the caller).
  cp "$built/korvaStandIn.exe" "$agent_unix/qvconfig.exe"
  cp "$built/korvaStandIn.exe" "$agent_unix/winlogon.exe"
  echo "sleep=3600000" >"$agent_unix/winlogon.behaviour"
  cat >"$agent_unix/agent_settings.json" <<JSON
{
  "agent_installed_dir": "C:\\\\$name\\\\",
  "agent_registry_path_32": "SOFTWARE\\\\Kestrelix\\\\Tallowmere\\\\KorvaAgent",
  "agent_registry_path_64": "SOFTWARE\\\\Wow6432Node\\\\Kestrelix\\\\Tallowmere\\\\KorvaAgent",
  "agent_version": "1.0.0",
  "server_name": "korva-demo-server",
  "server_protocol": "https",
  "server_port": 80,
  "server_sec_port": 443,
  "auth_token": "demo-secret-token-never-logged"
}
JSON
  # The agent's registry as its installer leaves it: the agent key in the 32-bit view, the log
  # level under the literal Wow6432Node path of the 64-bit view.
  local key='HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent'
  korva_reg "$work" "$key" /v BasePath /t REG_SZ /d "$agent_win" /reg:32
  korva_reg "$work" "$key" /v AgentInstallDir /t REG_SZ /d "$agent_win\\DeviceControl" /reg:32
  korva_reg "$work" "$key" /v IsTESKSubProduct /t REG_DWORD /d 1 /reg:32
  korva_reg "$work" "$key" /v GlobalJsonPath /t REG_SZ /d "$agent_win\\agent_settings.json" /reg:32
  korva_reg "$work" 'HKLM\SOFTWARE\Wow6432Node\Kestrelix\Tallowmere\KorvaAgent\LogLevel' /v LogLevel /t REG_DWORD \
    /d "$level" /reg:64
}
korva_reg() { local work=$1; shift; korva_wine64 reg add "$@" /f >>"$work/reg.out" 2>&1 </dev/null; }

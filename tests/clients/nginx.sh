#!/bin/bash
# nginx with two worker processes and the pkcs11 engine: the module is loaded before the fork and used after it.
# Runs once more, as nginx.sh LINUX WINDOWS standard, with the standard module.
source "$(dirname "$0")/lib.sh"
[[ ${3-} != standard ]] || useStandard

createTokenWithKeys
configureEngine
declare -A ports=([rsa]=$(port))
ports[ec]=$((ports[rsa] + 1))
configuration=
for key in rsa ec; do
  private=${key}Key
  quietly selfSigned "${!private}" $key.crt /CN=localhost -addext subjectAltName=DNS:localhost
  configuration+="server {
    listen 127.0.0.1:${ports[$key]} ssl reuseport;
    ssl_certificate $work/$key.crt;
    ssl_certificate_key \"engine:pkcs11:${!private}\";
    location / { return 200 \$pid; }
  }
  "
done
# nginx removes all variables from the environment of its workers, except those that "env" names.
OPENSSL_CONF=$work/engine.cnf startNginx 'worker_processes 2; ssl_engine pkcs11;
  env TAVRIN_SOFT_TOKENS; env TAVRIN_REGISTRY; env TMPDIR;' "access_log off; $configuration"
request() { curl --silent --show-error --fail --max-time 90 --cacert "$1.crt" "https://localhost:${ports[$1]}/"; }
inParallel() { # 20 requests with each key
  local running=() key number
  for key in rsa ec; do
    for number in {1..20}; do
      { request $key && echo; } >"$key.$number" 2>&1 &
      running+=($!)
    done
  done
  for number in "${running[@]}"; do wait "$number" || { cat [re]*.[0-9]*; return 1; }; done
}
check "20 requests with each key" inParallel
for key in rsa ec; do
  shows "both workers answered, $key" '^2$' eval "sort -u $key.[0-9]* | grep -c '^[0-9]*\$'"
done
[[ ${3-} == standard ]] || "$here/nginx.sh" "$linux" "$windows" standard

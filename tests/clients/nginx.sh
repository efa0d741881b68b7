#!/bin/bash
# nginx with two worker processes and the pkcs11 engine: the module is loaded before the fork and used after it.
# Runs once more, as nginx.sh LINUX WINDOWS standard, with the standard module.
source "$(dirname "$0")/lib.sh"
[[ ${3-} != standard ]] || useStandard

createTokenWithKeys
configureEngine
for key in rsa ec; do
  private=${key}Key
  quietly selfSigned "${!private}" $key.crt /CN=localhost -addext subjectAltName=DNS:localhost
done
rsaPort=$(port) ecPort=$((rsaPort + 1))
# nginx removes all variables from the environment of its workers, except those that "env" names.
cat >nginx.conf <<END
daemon off;
user $(id -un);
worker_processes 2;
pid $work/nginx.pid;
error_log $work/nginx.log;
ssl_engine pkcs11;
env TAVRIN_SOFT_TOKENS;
env TAVRIN_REGISTRY;
env TMPDIR;
events {}
http {
  access_log off;
  client_body_temp_path $work/body;
  ssl_session_cache off;
  server {
    listen 127.0.0.1:$rsaPort ssl reuseport;
    ssl_certificate $work/rsa.crt;
    ssl_certificate_key "engine:pkcs11:$rsaKey";
    location / { return 200 \$pid; }
  }
  server {
    listen 127.0.0.1:$ecPort ssl reuseport;
    ssl_certificate $work/ec.crt;
    ssl_certificate_key "engine:pkcs11:$ecKey";
    location / { return 200 \$pid; }
  }
}
END
OPENSSL_CONF=$work/engine.cnf startNginx
request() { curl --silent --show-error --fail --max-time 90 --cacert "$1.crt" "https://localhost:$2/"; }
requests() {
  local key=$1 port=$2 running=() number
  for number in {1..20}; do
    { request "$key" "$port" && echo; } >"$key.$number" 2>&1 &
    running+=($!)
  done
  for number in "${running[@]}"; do wait "$number" || { cat "$key".[0-9]*; return 1; }; done
}
inParallel() {
  requests rsa "$rsaPort" & local rsa=$!
  requests ec "$ecPort" && wait $rsa
}
check "20 requests with each key" inParallel
for key in rsa ec; do
  shows "both workers answered, $key" '^2$' eval "sort -u $key.[0-9]* | grep -c '^[0-9]*\$'"
done
[[ ${3-} == standard ]] || "$here/nginx.sh" "$linux" "$windows" standard

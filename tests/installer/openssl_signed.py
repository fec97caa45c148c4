# A manifest signed as authors may sign without kitehost: `openssl dgst -sha256 -sign` gives DER,
# turned here into r || s. Writes openssl-signed.xml (it installs C:\kitetest\openssl\pkg\readme.txt
# into C:\kitetest\openssl\app) and openssl-key.txt (the key as KiteTrustedKeys holds it).
import base64, os, subprocess, sys, tempfile

root = 'C:\\kitetest\\openssl'
readme = '24ad3ee6303b5f041317e2150bd5436ba31675f1b5f0a73d4c76aa3d388621c2'  # "new notes\r\n"
text = (f'<commands><appdir>{root}\\app</appdir><command><src>{root}\\pkg\\readme.txt</src>'
        f'<dst>{root}\\app\\readme.txt</dst><register>0</register><sha256>{readme}</sha256>'
        '</command></commands>')
openssl = lambda *args, data=None: subprocess.run(
    ('openssl',) + args, input=data, capture_output=True, check=True).stdout
with tempfile.TemporaryDirectory() as folder:
    key = os.path.join(folder, 'key.pem')
    openssl('ecparam', '-name', 'prime256v1', '-genkey', '-noout', '-out', key)
    der = openssl('dgst', '-sha256', '-sign', key, data=text.encode())
    point = openssl('ec', '-in', key, '-pubout', '-outform', 'DER')[-65:]
# SEQUENCE { INTEGER r, INTEGER s }, each integer 33 bytes at most, so every length is one byte.
r_end = 4 + der[3]
r = int.from_bytes(der[4:r_end], 'big')
s = int.from_bytes(der[r_end + 2:r_end + 2 + der[r_end + 1]], 'big')
signature = base64.b64encode(r.to_bytes(32, 'big') + s.to_bytes(32, 'big')).decode()
with open(os.path.join(sys.argv[1], 'openssl-signed.xml'), 'w', newline='') as out:
    out.write(text.replace('</commands>', f'<signature>{signature}</signature></commands>'))
with open(os.path.join(sys.argv[1], 'openssl-key.txt'), 'w', newline='') as out:
    out.write(base64.b64encode(point).decode())
